#include "stream/damaged_stream.h"

namespace VORN {
namespace STREAM {

DamagedStream::DamagedStream(const std::string& reason, uint64_t offset)
    : VornRuntimeError(reason + " (at byte " + std::to_string(offset) + " of the stream)"), offset_(offset) {}

// Out of line, so that each class has one copy of its type information.
DamagedStream::~DamagedStream() = default;
TruncatedStream::~TruncatedStream() = default;
MessageTooLarge::~MessageTooLarge() = default;

}  // namespace STREAM
}  // namespace VORN
