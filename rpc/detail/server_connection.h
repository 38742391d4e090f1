/// A server's side of one connection: its messages, and what limits them.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>

#include "rpc/channel.h"
#include "rpc/detail/clock.h"
#include "rpc/detail/outbox.h"
#include "rpc/detail/patience.h"
#include "stream/stream_decoder.h"
#include "stream/stream_encoder.h"
#include "vobject/vobject.h"

namespace VORN {
namespace RPC {

class ServerLoop;

/// Belongs to the executor, except for gone() and give_up(). Its operations keep it alive; what ends it, closes it.
class ServerConnection : public std::enable_shared_from_this<ServerConnection> {
 public:
  ServerConnection(ServerLoop& server, std::unique_ptr<Channel> channel, Clock::time_point now);

  /// Begins to read.
  void start();

  /// Takes the answer to a request that was begun; nil for none. Throws nothing.
  void finish(const VObject& answer);

  /// Sends the answers that have been finished, and goes on as far as limits allow. Throws nothing.
  void go_on();

  /// Closes the connection when a deadline has passed. Throws nothing.
  void check(Clock::time_point now);

  /// Other connections have left room for a request of this one. Throws nothing.
  void take_room();

  /// Reads no more, and refuses what has not begun: the server ends. Closes itself when all that was begun is answered
  /// and sent. Throws nothing.
  void read_no_more();

  void close() noexcept;

  /// Any thread may ask whether the request need not be worked on, since its answer cannot be sent.
  bool gone() const { return gone_; }

  /// Any thread may say that the answer to a request that was begun is lost, which ends the connection.
  void give_up() {
    given_up_ = true;
    --*in_progress_of_all_;
  }

 private:
  static constexpr size_t CHUNK = 64 << 10;

  template <typename Action>
  void guard(const Action& action) noexcept;
  void read();
  void receive(size_t size);
  void begin_requests();
  void send(const VObject& answer);
  void write();
  void close_if_finished();
  bool full() const;

  ServerLoop& server_;                // may be gone when this is closed
  std::shared_ptr<Channel> channel_;  // until this is closed; then only its operations keep it
  const std::string name_;
  STREAM::StreamDecoder decoder_;
  STREAM::StreamEncoder encoder_;
  Patience patience_;
  const std::unique_ptr<char[]> chunk_;  // what was read last; the kernel gives memory for what is used of it
  bool closed_ = false;
  bool reading_ = false;
  bool ending_ = false;            // the server ends
  bool heard_ = false;             // bytes have arrived that the patience was not told of
  bool whole_ = false;             // they have completed a frame
  bool attended_ = false;          // waits to go on
  bool waits_for_room_ = false;    // others have too much in progress
  std::deque<VObject> held_back_;  // requests that may not be begun yet
  size_t in_progress_ = 0;         // requests that are not answered yet
  const std::shared_ptr<std::atomic<size_t>> in_progress_of_all_;
  Outbox outbox_;
  Clock::time_point write_deadline_;
  std::atomic<bool> gone_{false};
  std::atomic<bool> given_up_{false};
};

}  // namespace RPC
}  // namespace VORN
