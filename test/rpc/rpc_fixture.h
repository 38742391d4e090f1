/// Servers that run in a thread, and peers that are only sockets.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "rpc/methods.h"
#include "rpc/server.h"
#include "rpc/server_options.h"
#include "test/rpc/bare_socket.h"
#include "vobject/vobject.h"

namespace vorn_test {

/// Waits until the condition holds. False: not within 10 s.
bool eventually(const std::function<bool()>& condition);

/// echo(value), add(a, b), sleep(milliseconds), fill(size), fail(), later(value): answers from another thread, and
/// drop(): does not answer.
VORN::RPC::Methods test_methods();

/// Skips a test where there are no UNIX sockets.
#ifdef _WIN32
#define NEEDS_UNIX_SOCKETS() GTEST_SKIP() << "Boost.Asio has no UNIX sockets on Windows"
#else
#define NEEDS_UNIX_SOCKETS() static_cast<void>(0)
#endif

/// The address of a UNIX socket in a folder of its own, which is removed.
class UnixAddress {
 public:
  UnixAddress();
  ~UnixAddress();
  UnixAddress(const UnixAddress&) = delete;
  UnixAddress& operator=(const UnixAddress&) = delete;
  std::string text() const { return "unix:" + path(); }
  std::string path() const { return folder_ + "/socket"; }

 private:
  std::string folder_;
};

/// A server with a thread that runs it. Its end waits for the thread, which fails the test if it takes over 10 s.
class RunningServer {
 public:
  explicit RunningServer(VORN::RPC::Methods methods = test_methods(),
                         VORN::RPC::ServerOptions options = VORN::RPC::ServerOptions(),
                         const std::string& address = "tcp:127.0.0.1:0");
  ~RunningServer();
  RunningServer(const RunningServer&) = delete;
  RunningServer& operator=(const RunningServer&) = delete;

  VORN::RPC::Server& server() const;
  const std::string& address() const;
  boost::asio::any_io_executor executor() const;
  /// Stops it and waits.
  void end();
  /// Whether it has ended by itself within 10 s.
  bool ends() const;

  std::string log() const;
  /// How often the log has this text.
  size_t logged(const std::string& text) const;

 private:
  struct Parts;
  const std::unique_ptr<Parts> parts_;
};

/// A connected socket without the library. Everything takes 10 s at most.
class Peer {
 public:
  explicit Peer(const std::string& address);
  explicit Peer(BareSocket socket);
  Peer(Peer&& src) noexcept;
  Peer& operator=(Peer&&) = delete;
  ~Peer();

  /// Sends all of it. False: the connection has ended, or nothing was taken for 10 s.
  bool send(std::string_view bytes) const;
  /// What arrives next; empty at the end.
  std::string receive() const;
  /// The next messages; fewer if the connection ends before.
  std::vector<VORN::VObject> messages(size_t count) const;
  /// Whether the peer closes the connection. What it sends first is dropped.
  bool closed() const;
  /// Whether bytes, or the end, arrive within this time.
  bool readable(std::chrono::milliseconds time) const;
  void close_sending() const;
  /// Ends the connection with a reset.
  void reset();
  void close();

 private:
  BareSocket socket_;
};

/// A listening socket without the library.
class Listener {
 public:
  Listener();
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  const std::string& address() const { return address_; }
  Peer accept() const;
  bool waiting(std::chrono::milliseconds time) const;
  void close();

 private:
  BareSocket socket_;
  std::string address_;
};

/// A frame with a request, or with any message.
/// @{
std::string request_frame(const VORN::VObject& id, const std::string& method, const VORN::VObjectVector& arguments);
std::string frame_of(const VORN::VObject& message);
/// @}

/// A frame around bytes.
std::string frame_around(const std::string& payload, bool twelve_byte_header = false);

/// As render() makes it.
std::string text_of(const VORN::VObject& value);

/// What a call throws, as "CLASS: MESSAGE"; its result as text if it throws nothing.
std::string outcome_of(const std::function<VORN::VObject()>& call);

}  // namespace vorn_test
