#include "rpc/channel.h"

namespace VORN {
namespace RPC {

Channel::~Channel() = default;

}  // namespace RPC
}  // namespace VORN
