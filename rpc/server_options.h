/// What a server grants its clients, and what it tells you.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "proto/value_wire.h"
#include "rpc/log.h"
#include "stream/stream_decoder.h"
#include "vobject/vobject.h"

namespace VORN {
namespace RPC {

/// Called around each call, on the thread that runs the method: for measuring, logging, permission. `run` runs the
/// method and throws what it throws; a method that answers later may then not have answered yet. May throw as a method
/// may. If it does not call `run`, the client gets "failed".
using Around =
    std::function<void(const std::string& name, const VObjectVector& arguments, const std::function<void()>& run)>;

/// Deadlines are looked at every quarter of a second.
struct ServerOptions {
  /// Payload bytes that every error of the server's own fits into.
  static constexpr uint32_t LEAST_LENGTH = 512;

  /// Threads that run the methods. 0: they run on the server's executor, and a method that waits or computes for long
  /// keeps all clients waiting; short ones are answered faster.
  size_t workers = 8;
  /// Names of methods that run on the executor instead, also when all workers are busy or max_in_progress_of_all
  /// requests wait: what tells a health check that the server is alive. `around` is then called there, too. They are
  /// methods that return their result, at once. A client that has max_in_progress requests waits with them, too.
  std::set<std::string> inline_methods;
  Around around;            ///< empty: nothing
  Log log = log_to_stderr;  ///< empty: nothing is logged

  uint32_t max_length = STREAM::MAX_LENGTH;  ///< the most payload bytes of a request or an answer, LEAST_LENGTH or more
  uint32_t max_depth = PROTO::DEFAULT_MAX_DEPTH;  ///< levels of a message, scalars included
  size_t max_connections = 200;                   ///< at a time; what comes beyond is closed
  /// Unanswered requests of one client. Beyond that, nothing more is read from it. 0: half the workers, so that one
  /// client cannot occupy them all; 16 without workers.
  size_t max_in_progress = 0;
  /// Unanswered requests of all clients, those that have gone included. Beyond that, clients wait for their turn.
  size_t max_in_progress_of_all = 1000;
  size_t max_unsent = 256 << 10;  ///< bytes of answers a client leaves unread before none of its requests is begun

  std::chrono::milliseconds idle_time{60000};  ///< how long a client that waits for no answer may be silent
  std::chrono::milliseconds frame_time{5000};  ///< how long a frame may take from its first byte to its last
  std::chrono::milliseconds write_time{2000};  ///< how long a client may leave answers unread
  std::chrono::milliseconds stop_time{2000};   ///< how long Server::stop() leaves to what has begun
};

}  // namespace RPC
}  // namespace VORN
