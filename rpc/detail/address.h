/// Sockets by address: "tcp:HOST:PORT" or "unix:PATH". With TCP port 0 the kernel chooses.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <functional>
#include <memory>
#include <string>

#include "rpc/channel.h"

namespace VORN {
namespace RPC {

using Acceptor = boost::asio::basic_socket_acceptor<boost::asio::generic::stream_protocol>;
using Socket = boost::asio::generic::stream_protocol::socket;

/// Where a server listens.
struct Address {
  bool is_unix = false;
  std::string path;  ///< of a UNIX socket
  std::string host;
  std::string port;

  /// Throws std::invalid_argument for what is no address.
  static Address parse(const std::string& text);
};

/// Opens a listening socket; a UNIX socket's file that nobody listens to is replaced. Throws std::system_error.
void listen(Acceptor& acceptor, const Address& address);

/// The address of a listening socket, with the port that the kernel has chosen.
std::string address_of(const Acceptor& acceptor, const Address& address);

/// A channel of a connected socket, which gets the options for both sides of a connection.
std::unique_ptr<Channel> channel_of(const boost::asio::any_io_executor& executor, Socket socket);

/// Connects. Returns a function that gives up: `connected` then gets an error. Throws std::bad_alloc.
std::function<void()> connect(const boost::asio::any_io_executor& executor, const Address& address,
                              Connected connected);

}  // namespace RPC
}  // namespace VORN
