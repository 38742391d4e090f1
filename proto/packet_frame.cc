#include "proto/packet_frame.h"

namespace VORN {
namespace PROTO {

PacketFrame::~PacketFrame() = default;

}  // namespace PROTO
}  // namespace VORN
