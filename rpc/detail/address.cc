#include "rpc/detail/address.h"

#ifdef _WIN32
#include <boost/asio/detail/socket_types.hpp>
#else
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#endif
#include <algorithm>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/system/error_code.hpp>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "rpc/asio_channel.h"
#include "rpc/detail/local_address.h"

namespace VORN {
namespace RPC {

using boost::asio::any_io_executor;
using boost::asio::ip::tcp;
using boost::system::error_code;

namespace {

using Endpoint = boost::asio::generic::stream_protocol::endpoint;

void check(const error_code& error, const std::string& what) {
  if (error) throw std::system_error(error, what);
}

Endpoint resolve(const any_io_executor& executor, const Address& address) {
  tcp::resolver resolver(executor);
  error_code error;
  const auto found = resolver.resolve(address.host, address.port, tcp::resolver::passive, error);
  check(error, address.host);
  return found.begin()->endpoint();
}

/// The keepalive options that Boost.Asio has no names for.
template <int name>
using TcpOption = boost::asio::detail::socket_option::integer<IPPROTO_TCP, name>;

/// Fails only for a connection that has already ended, as the first read will find.
void prepare(Socket& socket) {
  error_code ignored;
  const int family = socket.local_endpoint(ignored).protocol().family();
  if (family != AF_INET && family != AF_INET6) return;
  // Small frames go out at once instead of waiting until the peer acknowledges the previous one.
  socket.set_option(tcp::no_delay(true), ignored);
  // Keepalive detects a dead peer host in about half a minute.
  socket.set_option(boost::asio::socket_base::keep_alive(true), ignored);
#ifdef TCP_KEEPIDLE
  socket.set_option(TcpOption<TCP_KEEPIDLE>(15), ignored);
  socket.set_option(TcpOption<TCP_KEEPINTVL>(5), ignored);
  socket.set_option(TcpOption<TCP_KEEPCNT>(3), ignored);
#endif
}

std::string text_of(const Endpoint& endpoint) {
  tcp::endpoint tcp_endpoint;
  tcp_endpoint.resize(std::min(endpoint.size(), tcp_endpoint.capacity()));
  std::copy_n(reinterpret_cast<const char*>(endpoint.data()), tcp_endpoint.size(),
              reinterpret_cast<char*>(tcp_endpoint.data()));
  return tcp_endpoint.address().to_string() + ":" + std::to_string(tcp_endpoint.port());
}

/// A name for the log. The clients of a UNIX socket have no address.
std::string name_of(Socket& socket) {
  error_code error;
  const Endpoint remote = socket.remote_endpoint(error);
  const int family = remote.protocol().family();
  if (!error && (family == AF_INET || family == AF_INET6)) return text_of(remote);
  return "local client " + std::to_string(socket.native_handle());
}

/// An attempt to connect. Lives as long as its operations.
struct Attempt : std::enable_shared_from_this<Attempt> {
  Attempt(any_io_executor with, Connected then)
      : executor(std::move(with)), resolver(executor), socket(executor), connected(std::move(then)) {}

  void begin(const Address& address) {
    if (address.is_unix) return try_all({local_endpoint(address.path)});
    error_code error;
    const auto numeric = boost::asio::ip::make_address(address.host, error);
    // The resolver would ask a thread of its own.
    if (!error) return try_all({tcp::endpoint(numeric, static_cast<uint16_t>(std::stoul(address.port)))});
    resolver.async_resolve(
        address.host, address.port,
        [self = shared_from_this()](const error_code& failed, const tcp::resolver::results_type& found) {
          if (failed || self->given_up) return self->end(failed);
          std::vector<Endpoint> endpoints;
          for (const auto& entry : found) endpoints.emplace_back(entry.endpoint());
          self->try_all(std::move(endpoints));
        });
  }

  void try_all(std::vector<Endpoint> found) {
    endpoints = std::move(found);
    boost::asio::async_connect(
        socket, endpoints, [self = shared_from_this()](const error_code& error, const Endpoint&) { self->end(error); });
  }

  void end(const error_code& error) {
    if (error || given_up) return connected(error ? error : boost::asio::error::operation_aborted, nullptr);
    std::unique_ptr<Channel> channel;
    try {
      channel = channel_of(executor, std::move(socket));
    } catch (const std::bad_alloc&) {
      return connected(boost::asio::error::no_memory, nullptr);
    }
    connected(error, std::move(channel));
  }

  void give_up() {
    given_up = true;
    resolver.cancel();
    error_code ignored;
#ifdef _WIN32
    socket.cancel(ignored);  // as in make_channel()
#endif
    socket.close(ignored);
  }

  any_io_executor executor;
  tcp::resolver resolver;
  Socket socket;
  std::vector<Endpoint> endpoints;
  Connected connected;
  bool given_up = false;
};

}  // namespace

Address Address::parse(const std::string& text) {
  const auto refuse = [&text] {
    throw std::invalid_argument("no address: \"" + text + "\" (tcp:HOST:PORT or unix:PATH)");
  };
  Address address;
  if (text.compare(0, 5, "unix:") == 0 && text.size() > 5) {
    address.is_unix = true;
    address.path = text.substr(5);
    local_endpoint(address.path);
    return address;
  }
  const size_t colon = text.rfind(':');
  if (text.compare(0, 4, "tcp:") != 0 || colon == std::string::npos || colon < 5) refuse();
  address.host = text.substr(4, colon - 4);
  address.port = text.substr(colon + 1);
  const bool digits = address.port.find_first_not_of("0123456789") == std::string::npos;
  if (address.port.empty() || address.port.size() > 5 || !digits || std::stoul(address.port) > 65535) refuse();
  return address;
}

void listen(Acceptor& acceptor, const Address& address) {
  error_code error;
  const std::string what = address.is_unix ? address.path : address.host + ":" + address.port;
  if (address.is_unix) remove_stale(acceptor.get_executor(), address.path);
  const Endpoint endpoint = address.is_unix ? local_endpoint(address.path) : resolve(acceptor.get_executor(), address);
  acceptor.open(endpoint.protocol(), error);
  check(error, what);
#ifdef _WIN32
  // There the option lets another program listen at the same port. This one refuses, and a port is free at once anyway.
  acceptor.set_option(boost::asio::detail::socket_option::boolean<SOL_SOCKET, SO_EXCLUSIVEADDRUSE>(true), error);
#else
  if (!address.is_unix) acceptor.set_option(boost::asio::socket_base::reuse_address(true), error);
#endif
  check(error, what);
  acceptor.bind(endpoint, error);
  check(error, what);
  acceptor.listen(boost::asio::socket_base::max_listen_connections, error);
  check(error, what);
}

std::string address_of(const Acceptor& acceptor, const Address& address) {
  return address.is_unix ? "unix:" + address.path : "tcp:" + text_of(acceptor.local_endpoint());
}

std::unique_ptr<Channel> channel_of(const any_io_executor& executor, Socket socket) {
  prepare(socket);
  std::string name = name_of(socket);
  return make_channel(executor, std::move(socket), std::move(name));
}

std::function<void()> connect(const any_io_executor& executor, const Address& address, Connected connected) {
  const auto attempt = std::make_shared<Attempt>(executor, std::move(connected));
  attempt->begin(address);
  return [weak = std::weak_ptr<Attempt>(attempt)] {
    if (const auto live = weak.lock()) live->give_up();
  };
}

}  // namespace RPC
}  // namespace VORN
