/// Calls the methods of a server, and does not wait: for programs that have an io_context of their own.
///
///   VORN::RPC::AsyncClient client(io.get_executor(), "tcp:127.0.0.1:7000");
///   client.call("add", {20, 22}, [](const VORN::RPC::Outcome& outcome) { ... outcome.result() ... });
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <functional>
#include <memory>
#include <string>

#include "rpc/calls_export.h"
#include "rpc/channel.h"
#include "rpc/client_options.h"
#include "rpc/outcome.h"
#include "vobject/vobject.h"

namespace VORN {
namespace RPC {

class ClientLoop;

/// Calls overlap on one connection. It is made when there is a call, and again when it was lost: until the deadlines of
/// the calls that wait for it, with pauses that double from 0.05 s to 1 s, with jitter. Late answers are dropped.
///
/// A call that a stopping server refuses has not been executed: it is made again, until its deadline, on a new
/// connection. The old one serves the calls in flight and no other.
///
/// Each call ends exactly once, by its deadline: its handler is called on the executor, and never before call() has
/// returned. What a handler throws goes through the executor.
///
/// Any thread may call the functions. An open connection keeps io_context::run() from returning: close().
class VORN_CALLS_API AsyncClient {
 public:
  /// Called with what became of the call.
  using Handler = std::function<void(const Outcome&)>;

  /// `address` is "tcp:HOST:PORT" or, but for Windows, "unix:PATH". Throws std::invalid_argument for what is no
  /// address, and std::bad_alloc.
  ///
  /// REQUIRES: the executor runs one thing at a time: that of an io_context that one thread runs, or a strand.
  AsyncClient(const boost::asio::any_io_executor& executor, const std::string& address,
              ClientOptions options = ClientOptions());

  /// Connects by `connector`. Throws std::bad_alloc, and REQUIRES as above.
  AsyncClient(const boost::asio::any_io_executor& executor, Connector connector,
              ClientOptions options = ClientOptions());

  /// As close(). REQUIRES: the executor's context lives.
  ~AsyncClient();
  AsyncClient(const AsyncClient&) = delete;
  AsyncClient& operator=(const AsyncClient&) = delete;

  /// Calls a method. Nobody may change what the arguments share with other values before the call has ended. Throw
  /// std::bad_alloc, and the handler is not called then.
  /// @{
  void call(const std::string& name, const VObjectVector& arguments, Handler handler);
  void call(const std::string& name, const VObjectVector& arguments, Handler handler, const CallOptions& options);
  /// @}

  /// Sends a call that has no answer; its result is nil when the kernel has it, and whether the server executes it
  /// remains unknown. Throw as call() does.
  /// @{
  void notify(const std::string& name, const VObjectVector& arguments, Handler handler);
  void notify(const std::string& name, const VObjectVector& arguments, Handler handler, const CallOptions& options);
  /// @}

  /// Ends the connection. Calls in flight, and calls made later, end with ConnectionLost. Throws std::bad_alloc.
  void close();

 private:
  std::shared_ptr<ClientLoop> loop_;
};

}  // namespace RPC
}  // namespace VORN
