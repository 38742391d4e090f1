/// Answers the calls of many clients, over TCP, UNIX sockets and whatever else carries bytes.
///
///   boost::asio::io_context io;
///   VORN::RPC::Server server(io.get_executor(), "tcp:127.0.0.1:7000", methods);
///   boost::asio::signal_set signals(io, SIGTERM, SIGINT);
///   signals.async_wait([&](boost::system::error_code error, int) { if (!error) server.stop(); });
///   io.run();   // until the server has stopped
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <memory>
#include <string>

#include "rpc/calls_export.h"
#include "rpc/channel.h"
#include "rpc/methods.h"
#include "rpc/server_options.h"

namespace VORN {
namespace RPC {

class ServerLoop;

/// All reading, writing and waiting happens on the executor; the methods run on workers, which never wait for a client,
/// but for ServerOptions::inline_methods.
///
/// A client is closed, and the log says why, when it sends what is no request, announces too much, is silent for too
/// long, or does not read its answers. A client that ends its connection takes back its calls: those that no worker has
/// begun are not executed.
///
/// Whatever a client sends, the server throws nothing through the executor. Without memory Boost.Asio may, for
/// operations of its own: std::bad_alloc then leaves io_context::run(), and the server may be missing one of them.
class VORN_CALLS_API Server {
 public:
  /// Listens. `address` is "tcp:HOST:PORT" (port 0: the kernel chooses) or, but for Windows, "unix:PATH", where a file
  /// that a killed server has left is replaced. Throws std::invalid_argument for what is no address, for limits that
  /// leave no room for errors and for inline_methods that are not in the table; std::system_error when it cannot
  /// listen, and std::bad_alloc.
  ///
  /// REQUIRES: the executor runs one thing at a time: that of an io_context that one thread runs, or a strand.
  Server(const boost::asio::any_io_executor& executor, const std::string& address, Methods methods,
         ServerOptions options = ServerOptions());

  /// Has only the connections that are given to serve(). Throws and REQUIRES as the other one does.
  Server(const boost::asio::any_io_executor& executor, Methods methods, ServerOptions options = ServerOptions());

  /// Closes what is open, and waits for methods that workers are still running. REQUIRES: on the executor, or when
  /// nobody runs it.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Where clients reach it: with the port that the kernel has chosen. Empty without a listening socket.
  const std::string& address() const;

  /// Serves a connection that exists already, behind its handshakes. Any thread may call this. Throws std::bad_alloc;
  /// the connection is then closed.
  void serve(std::unique_ptr<Channel> channel);

  /// Ends the server: no connection is accepted and no request read any more, requests that have not begun are answered
  /// with the error "stopping", those that have begun are answered within stop_time, and connections that are still
  /// open then are closed. The log names each notification that has not begun. After that nothing of the server waits
  /// on the executor, so that io_context::run() can return. Returns at once. Any thread may call this, and the handler
  /// of a boost::asio::signal_set. Throws std::bad_alloc.
  void stop();

 private:
  std::shared_ptr<ServerLoop> loop_;
};

}  // namespace RPC
}  // namespace VORN
