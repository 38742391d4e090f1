/// What a client expects of its calls.
#pragma once

#include <chrono>
#include <cstdint>

#include "proto/value_wire.h"
#include "stream/stream_decoder.h"

namespace VORN {
namespace RPC {

/// How a call is made.
struct CallOptions {
  std::chrono::milliseconds timeout{5000};  ///< until its answer, connecting included
  /// Make the call again, until its deadline, when the connection is lost before the answer. The server may then
  /// execute it more than once: only for methods where that does no harm.
  bool repeat = false;
};

/// How a client is made.
struct ClientOptions {
  CallOptions calls;                              ///< those that are made without options of their own
  uint32_t max_length = STREAM::MAX_LENGTH;       ///< the most payload bytes of a request or an answer
  uint32_t max_depth = PROTO::DEFAULT_MAX_DEPTH;  ///< levels of an answer, scalars included
};

}  // namespace RPC
}  // namespace VORN
