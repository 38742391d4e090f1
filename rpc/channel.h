/// A connected stream of bytes, whatever it is made of. rpc/asio_channel.h makes one from any stream of Boost.Asio.
#pragma once

#include <boost/system/error_code.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "rpc/calls_export.h"

namespace VORN {
namespace RPC {

/// At most one read and one write are in progress at a time. Each `done` is called exactly once, on the executor of the
/// server or client, and never before the function that it was given to has returned.
class VORN_CALLS_API Channel {
 public:
  /// What became of reading or writing, and how many bytes.
  using Done = std::function<void(const boost::system::error_code&, size_t)>;

  Channel() = default;
  virtual ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  /// Waits for bytes and stores at least one of them. The error boost::asio::error::eof is the end of input. The room
  /// remains valid until `done`.
  virtual void read_some(char* into, size_t size, Done done) = 0;

  /// Writes all bytes, which remain valid until `done`.
  virtual void write(std::string_view bytes, Done done) = 0;

  /// Ends reading and writing with an error; nothing is sent any more. May be called again.
  virtual void close() noexcept = 0;

  /// The peer's name for the log.
  virtual std::string peer() const = 0;
};

/// Gets the connected channel, or the error and a null pointer. To be called once, on the client's executor.
using Connected = std::function<void(const boost::system::error_code&, std::unique_ptr<Channel>)>;

/// Connects a client, by the deadline: TLS, a pair of sockets, a proxy. Called on the client's executor, for each
/// connection. What is connected after the deadline is closed.
using Connector = std::function<void(std::chrono::steady_clock::time_point deadline, Connected connected)>;

}  // namespace RPC
}  // namespace VORN
