/// Connected TCP sockets as values that close themselves, with limits of time. What goes wrong is thrown as
/// std::system_error.
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

  /// Until there are bytes, or the end. False: neither came by the deadline.
  bool wait_readable(Clock::time_point deadline) const;

  /// Waits for bytes and appends up to 64 KiB of them to `bytes`. False: the peer has sent all.
  bool receive(std::string& bytes);

  /// Sends all bytes, or throws: ETIMEDOUT when the peer has not taken them by the deadline. Perhaps some are out
  /// then, and nothing can follow them.
  void send_all(std::string_view bytes, Clock::time_point deadline);

  /// Ends both directions: a thread that waits in receive() finds the end.
  void shutdown() noexcept;

  /// Ends the direction from the peer alone: receive() finds the end, what is to be sent is sent.
  void shutdown_receive() noexcept;

 private:
  int fd_;
};

/// Addresses are "tcp:HOST:PORT"; port 0 lets the kernel choose. Throw std::invalid_argument for anything else.
Socket listen_at(const std::string& address);
Socket connect_to(const std::string& address, Clock::time_point deadline);

/// The next client, or an invalid socket (fd -1) when it went away again.
Socket accept_from(const Socket& listener);

std::string address_of(const Socket& listener);
std::string peer_of(const Socket& connection);

}  // namespace rpc
