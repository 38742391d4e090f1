/// A second decoder of variants, to hold the first against. It is plain and slow: it asks the buffer about
/// every single byte, recurses for every level, keeps its counts in a map, and shares no code with vobject/
/// or with the readers of proto/. What it makes are variants, by their public operations.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "proto/packet_buf.h"
#include "vobject/vobject.h"

namespace vorn_test {

/// What a walk over a value finds.
struct ReferenceScan {
  std::string failure;                 ///< empty when there is none
  uint64_t pos;                        ///< where the walk stopped
  std::vector<uint64_t> array_counts;  ///< elements of each array, in the order of their starts
};

/// Walks the value at the buffer's position without building it. No value starts at or behind `end`; the
/// bytes of a string must lie below `string_end`.
ReferenceScan reference_scan(const VORN::PROTO::PacketBuf& buf, uint64_t end, uint64_t string_end, uint32_t maxdepth);

/// Does what VObject::deserialize() does, but returns the text of a failure instead of throwing it; empty
/// when there is none. Uses the machine stack without a bound of its own.
std::string reference_deserialize(VORN::PROTO::PacketBuf& buf, uint64_t end, VORN::VObject& out,
                                  bool symbols_as_strings, uint32_t maxdepth);

}  // namespace vorn_test
