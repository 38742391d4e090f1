/// Connected TCP sockets as RAII objects, with timeouts. Errors are thrown as std::system_error.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace rpc {

using Clock = std::chrono::steady_clock;

/// Owns a file descriptor. One thread may receive() and another send_all() at the same time.
class Socket {
 public:
  explicit Socket(int fd = -1) noexcept : fd_(fd) {}
  Socket(Socket&& src) noexcept;
  Socket& operator=(Socket&& src) noexcept;
  ~Socket();

  int fd() const { return fd_; }

  /// Waits for bytes or the end of input. False: neither came by the deadline.
  bool wait_readable(Clock::time_point deadline) const;

  /// Waits for bytes and appends up to 64 KiB of them to `bytes`. False: the end of input.
  bool receive(std::string& bytes);

  /// Sends all bytes. Throws ETIMEDOUT if the peer has not read them by the deadline; some may have been sent by then,
  /// and nothing can follow them.
  void send_all(std::string_view bytes, Clock::time_point deadline);

  /// Shuts down both directions: a thread blocked in receive() gets the end of input.
  void shutdown() noexcept;

  /// Shuts down receiving only: receive() gets the end of input, and sending goes on.
  void shutdown_receive() noexcept;

 private:
  int fd_;
};

/// Addresses are "tcp:HOST:PORT"; port 0 lets the kernel choose. Throw std::invalid_argument for anything else.
Socket listen_at(const std::string& address);
Socket connect_to(const std::string& address, Clock::time_point deadline);

/// The next client, or an invalid socket (fd -1) if it has already disconnected.
Socket accept_from(const Socket& listener);

std::string address_of(const Socket& listener);
std::string peer_of(const Socket& connection);

}  // namespace rpc
