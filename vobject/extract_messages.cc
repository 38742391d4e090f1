#include "vobject/extract_messages.h"

#include "proto/value_wire.h"
#include "proto/vorn_runtime_error.h"

namespace VORN {
namespace PROTO {

namespace {

constexpr size_t ROOM = 256;  // spares small batches a reallocation

}  // namespace

void proto_extract_messages(PacketFrameIn& frame, std::vector<VObject>& messages) {
  if (!frame.have_complete_frame()) {
    throw VornRuntimeError("proto_extract_messages: packetframe state must be have_complete_frame");
  }
  if (frame.payload_size() == 0) return;
  if (messages.capacity() < ROOM) messages.reserve(ROOM);
  frame.set_pos(frame.payload_start());
  const uint64_t end = frame.payload_end();
  while (frame.pos() < end) {
    messages.emplace_back();
    VObject::deserialize(frame, end, messages.back(), true, DEFAULT_MAX_DEPTH);
  }
}

}  // namespace PROTO
}  // namespace VORN
