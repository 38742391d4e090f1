#include "examples/native/sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace rpc {

namespace {

[[noreturn]] void fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

using AddressList = std::unique_ptr<addrinfo, void (*)(addrinfo*)>;

AddressList resolve(const std::string& address) {
  const size_t colon = address.rfind(':');
  if (address.compare(0, 4, "tcp:") != 0 || colon < 5) {
    throw std::invalid_argument("no address: " + address + " (tcp:HOST:PORT)");
  }
  const std::string host = address.substr(4, colon - 4);
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int status = getaddrinfo(host.c_str(), address.c_str() + colon + 1, &hints, &found);
  if (status != 0) throw std::invalid_argument(address + ": " + gai_strerror(status));
  return {found, freeaddrinfo};
}

Socket new_socket(const addrinfo& where) {
  Socket socket(::socket(where.ai_family, where.ai_socktype | SOCK_CLOEXEC, where.ai_protocol));
  if (socket.fd() < 0) fail(errno, "socket");
  return socket;
}

/// Waits for `events`. False: the deadline has passed.
bool wait_for(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd waiting{fd, events, 0};
    const int ready = poll(&waiting, 1, static_cast<int>(left));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) fail(errno, "poll");
  }
}

void set(const Socket& socket, int level, int option, int value) {
  if (setsockopt(socket.fd(), level, option, &value, sizeof value) != 0) fail(errno, "setsockopt");
}

/// Small frames go out at once; keepalive detects a dead peer host in about half a minute.
void prepare(const Socket& socket) {
  set(socket, IPPROTO_TCP, TCP_NODELAY, 1);
  set(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
  set(socket, IPPROTO_TCP, TCP_KEEPIDLE, 15);
  set(socket, IPPROTO_TCP, TCP_KEEPINTVL, 5);
  set(socket, IPPROTO_TCP, TCP_KEEPCNT, 3);
}

std::string text_of(const sockaddr_in& address) {
  char host[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address.sin_addr, host, sizeof host);
  return std::string(host) + ":" + std::to_string(ntohs(address.sin_port));
}

}  // namespace

Socket::Socket(Socket&& src) noexcept : fd_(std::exchange(src.fd_, -1)) {}

Socket& Socket::operator=(Socket&& src) noexcept {
  std::swap(fd_, src.fd_);
  return *this;
}

Socket::~Socket() {
  if (fd_ >= 0) close(fd_);
}

bool Socket::wait_readable(Clock::time_point deadline) const {
  return wait_for(fd_, POLLIN, deadline);
}

bool Socket::receive(std::string& bytes) {
  char chunk[65536];
  for (;;) {
    const ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
    if (n > 0) {
      bytes.append(chunk, static_cast<size_t>(n));
      return true;
    }
    if (n == 0) return false;
    if (errno != EINTR) fail(errno, "recv");
  }
}

void Socket::send_all(std::string_view bytes, Clock::time_point deadline) {
  while (!bytes.empty()) {
    const ssize_t n = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0) {
      bytes.remove_prefix(static_cast<size_t>(n));
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      if (!wait_for(fd_, POLLOUT, deadline)) fail(ETIMEDOUT, "the peer takes nothing");
    } else if (errno != EINTR) {
      fail(errno, "send");
    }
  }
}

void Socket::shutdown() noexcept {
  ::shutdown(fd_, SHUT_RDWR);  // fails only if the connection has already ended
}

void Socket::shutdown_receive() noexcept {
  ::shutdown(fd_, SHUT_RD);
}

Socket listen_at(const std::string& address) {
  const AddressList where = resolve(address);
  Socket socket = new_socket(*where);
  set(socket, SOL_SOCKET, SO_REUSEADDR, 1);
  if (bind(socket.fd(), where->ai_addr, where->ai_addrlen) != 0) fail(errno, address);
  if (listen(socket.fd(), SOMAXCONN) != 0) fail(errno, address);
  return socket;
}

Socket connect_to(const std::string& address, Clock::time_point deadline) {
  const AddressList where = resolve(address);
  Socket socket = new_socket(*where);
  const int flags = fcntl(socket.fd(), F_GETFL);
  // connect() has no timeout of its own, so the socket is non-blocking until it is connected.
  if (flags < 0 || fcntl(socket.fd(), F_SETFL, flags | O_NONBLOCK) != 0) fail(errno, "fcntl");
  if (connect(socket.fd(), where->ai_addr, where->ai_addrlen) != 0) {
    if (errno != EINPROGRESS) fail(errno, address);
    if (!wait_for(socket.fd(), POLLOUT, deadline)) fail(ETIMEDOUT, address);
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(socket.fd(), SOL_SOCKET, SO_ERROR, &error, &size) != 0) fail(errno, "getsockopt");
    if (error != 0) fail(error, address);
  }
  if (fcntl(socket.fd(), F_SETFL, flags) != 0) fail(errno, "fcntl");
  prepare(socket);
  return socket;
}

Socket accept_from(const Socket& listener) {
  Socket client(accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC));
  if (client.fd() < 0) {
    if (errno == ECONNABORTED || errno == EINTR || errno == EAGAIN) return client;
    fail(errno, "accept");
  }
  prepare(client);
  return client;
}

std::string address_of(const Socket& listener) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getsockname(listener.fd(), reinterpret_cast<sockaddr*>(&address), &size) != 0) fail(errno, "getsockname");
  return "tcp:" + text_of(address);
}

std::string peer_of(const Socket& connection) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getpeername(connection.fd(), reinterpret_cast<sockaddr*>(&address), &size) != 0) return "a client that left";
  return text_of(address);
}

}  // namespace rpc
