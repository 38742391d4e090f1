/// Calls the methods of a server, and waits for the answers.
///
///   VORN::RPC::Client client("tcp:127.0.0.1:7000");
///   const VORN::VObject sum = client.call("add", {20, 22});
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <functional>
#include <memory>
#include <string>

#include "rpc/calls_export.h"
#include "rpc/channel.h"
#include "rpc/client_options.h"
#include "vobject/vobject.h"

namespace VORN {
namespace RPC {

/// Threads may share a client: their calls are in flight at once, on one connection, which is made and lost as
/// AsyncClient says. It has no thread of its own: of the threads that wait for answers one reads, for all of them.
/// What arrives while nobody calls is read by the next call.
///
/// A process that forks makes new clients.
class VORN_CALLS_API Client {
 public:
  /// Makes a connector for channels on the client's own executor.
  using MakeConnector = std::function<Connector(const boost::asio::any_io_executor& executor)>;

  /// `address` is "tcp:HOST:PORT" or, but for Windows, "unix:PATH". Throws std::invalid_argument for what is no
  /// address, std::system_error without descriptors, and std::bad_alloc.
  explicit Client(const std::string& address, const ClientOptions& options = ClientOptions());

  /// Connects by the connector that the function returns. Throws std::system_error, std::bad_alloc, and what the
  /// function throws.
  explicit Client(const MakeConnector& make_connector, const ClientOptions& options = ClientOptions());

  /// REQUIRES: no call is being made.
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Returns what the method returns. Throw the errors of Outcome::result().
  /// @{
  VObject call(const std::string& name, const VObjectVector& arguments);
  VObject call(const std::string& name, const VObjectVector& arguments, const CallOptions& options);
  /// @}

  /// Sends a call that has no answer, and returns when the kernel has it: whether the server executes it remains
  /// unknown. Throw as call() does.
  /// @{
  void notify(const std::string& name, const VObjectVector& arguments);
  void notify(const std::string& name, const VObjectVector& arguments, const CallOptions& options);
  /// @}

  /// Ends the connection. Calls in flight, and calls made later, throw ConnectionLost. Throws std::bad_alloc.
  void close();

 private:
  class Driver;
  const std::unique_ptr<Driver> driver_;
};

}  // namespace RPC
}  // namespace VORN
