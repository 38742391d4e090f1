#pragma once

#include <vector>

#include "proto/export.h"
#include "proto/packet_frame_in.h"
#include "vobject/vobject.h"

namespace VORN {
namespace PROTO {

/// Appends every value in the payload of a complete frame to `messages`, in order. Symbols come as strings;
/// at most 64 levels of nesting. The frame's position moves from the payload's start to its end, and nothing
/// else of the frame changes: a second call appends the same messages again. With an empty payload nothing
/// happens at all; otherwise the vector gets room for at least 256 elements.
///
/// Throws VornRuntimeError "proto_extract_messages: packetframe state must be have_complete_frame" before it
/// touches anything, and what VObject::deserialize() throws. Then the earlier messages stay in the vector,
/// and behind them the one that failed: nil, or partly built.
VORN_API void proto_extract_messages(PacketFrameIn& frame, std::vector<VObject>& messages);

}  // namespace PROTO
}  // namespace VORN
