/// All of the value encoding: the type bytes, the primitive writers, the read cursor with the primitive
/// readers, and the checking pass.
#pragma once

#include <cstdint>

#include "proto/transport_type.h"
#include "proto/value_check.h"
#include "proto/wire_reader.h"
#include "proto/wire_writer.h"

namespace VORN {
namespace PROTO {

/// How many levels a value may have, scalars included, where its user says nothing else. Peers agree on it: a deeper
/// value is one that the other side refuses.
constexpr int32_t DEFAULT_MAX_DEPTH = 64;

}  // namespace PROTO
}  // namespace VORN
