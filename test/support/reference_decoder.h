/// A second decoder of variants, to check the first. It is simple and slow: it asks the buffer about every single byte,
/// recurses for every level, keeps its counts in a map, and shares no code with vobject/ or with the readers of proto/.
/// It builds variants only through their public operations.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "proto/packet_buf.h"
#include "vobject/vobject.h"

namespace vorn_test {

/// The result of a walk over a value.
struct ReferenceScan {
  std::string failure;                 ///< empty when there is none
  uint64_t pos;                        ///< where the walk stopped
  std::vector<uint64_t> array_counts;  ///< elements of each array, in the order of their starts
};

/// Walks the value at the buffer's position without building it. No value may start at or after `end`; the
/// bytes of a string must be before `string_end`.
ReferenceScan reference_scan(const VORN::PROTO::PacketBuf& buf, uint64_t end, uint64_t string_end, uint32_t maxdepth);

/// Does the same as VObject::deserialize(), but returns the text of a failure instead of throwing it; empty if there is
/// none. Its use of the machine stack is unbounded.
std::string reference_deserialize(VORN::PROTO::PacketBuf& buf, uint64_t end, VORN::VObject& out,
                                  bool symbols_as_strings, uint32_t maxdepth);

}  // namespace vorn_test
