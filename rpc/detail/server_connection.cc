#include "rpc/detail/server_connection.h"

#include <boost/asio/error.hpp>
#include <boost/system/error_code.hpp>
#include <exception>
#include <string_view>
#include <utility>

#include "rpc/detail/envelope.h"
#include "rpc/detail/receiver.h"
#include "rpc/detail/server_loop.h"
#include "rpc/errors.h"
#include "stream/damaged_stream.h"

namespace VORN {
namespace RPC {

using boost::system::error_code;

ServerConnection::ServerConnection(ServerLoop& server, std::unique_ptr<Channel> channel, Clock::time_point now)
    : server_(server),
      channel_(std::move(channel)),
      name_(channel_->peer()),
      decoder_({server.options().max_length, server.options().max_depth}),
      encoder_({server.options().max_length}),
      patience_(server.options().idle_time, server.options().frame_time, now),
      chunk_(new char[CHUNK]),
      in_progress_of_all_(server.in_progress()) {}

void ServerConnection::start() {
  guard([this] { read(); });
}

/// Closes the connection for whatever the action throws.
template <typename Action>
void ServerConnection::guard(const Action& action) noexcept {
  if (closed_) return;
  try {
    return action();
  } catch (const STREAM::DamagedStream& e) {
    server_.journal().write(LogLevel::warning, name_, ": ", e.what(), "; closing");
  } catch (const Error& e) {
    server_.journal().write(LogLevel::warning, name_, ": ", e.what(), "; closing");
  } catch (const std::exception& e) {
    server_.journal().write(LogLevel::error, name_, ": ", e.what(), "; closing");
  }
  close();
}

void ServerConnection::close() noexcept {
  if (closed_) return;
  closed_ = true;
  gone_ = true;
  held_back_.clear();
  channel_->close();
  channel_.reset();  // an Answer that outlives the server keeps this, and the channel may not outlive the executor
  server_.forget(*this);
}

void ServerConnection::read() {
  if (reading_ || closed_ || ending_ || !held_back_.empty()) return;
  Channel::Done done = [self = shared_from_this(), channel = channel_](const error_code& error, size_t size) {
    self->reading_ = false;
    self->guard([&] {
      if (self->ending_) return;
      if (!error) return self->receive(size);
      if (error != boost::asio::error::eof) {
        self->server_.journal().write(LogLevel::info, self->name_, ": ", error.message());
      }
      self->close();
    });
  };
  channel_->read_some(chunk_.get(), CHUNK, std::move(done));
  reading_ = true;
}

void ServerConnection::receive(size_t size) {
  decoder_.feed({chunk_.get(), size}, [this](STREAM::StreamFrame& frame) {
    for (VObject& message : frame.messages) {
      check_request(message);
      held_back_.push_back(std::move(message));
    }
    whole_ = true;
  });
  heard_ = true;
  server_.gather([this] { begin_requests(); });
  read();
}

/// Begins requests until one has to be held back. A client that sends more than its share waits for its next turn, even
/// if its requests are answered at once: answers are taken behind this.
void ServerConnection::begin_requests() {
  while (!held_back_.empty() && !full()) {
    if (!server_.has_room() && !server_.is_inline(held_back_.front())) {
      if (!waits_for_room_) server_.wait_for_room(shared_from_this());
      waits_for_room_ = true;
      return;
    }
    VObject request = std::move(held_back_.front());
    held_back_.pop_front();
    ++in_progress_;
    server_.begin(shared_from_this(), std::move(request));
  }
  if (!held_back_.empty() || !heard_) return;
  patience_.heard(whole_, decoder_.between_frames(), Clock::now());
  heard_ = whole_ = false;
}

bool ServerConnection::full() const {
  return in_progress_ >= server_.max_in_progress() || outbox_.size() > server_.options().max_unsent;
}

void ServerConnection::finish(const VObject& answer) {
  --in_progress_;
  server_.answered();
  guard([&] {
    if (answer.type() != DT_NIL) send(answer);
    if (!attended_) server_.attend(shared_from_this());
    attended_ = true;
  });
}

void ServerConnection::go_on() {
  attended_ = false;
  guard([this] {
    write();
    if (ending_) return close_if_finished();
    begin_requests();
    read();
  });
}

void ServerConnection::take_room() {
  waits_for_room_ = false;
  go_on();
}

void ServerConnection::close_if_finished() {
  if (in_progress_ == 0 && outbox_.empty()) close();
}

/// A result that cannot be sent becomes an error: otherwise the client would wait for its timeout.
void ServerConnection::send(const VObject& answer) {
  const VObject& id = answer.getvec()[0];
  std::string_view bytes;
  try {
    bytes = encoder_.frame(answer);
  } catch (const STREAM::MessageTooLarge& e) {
    bytes = encoder_.frame(failure(id, "too large", e.what()));
  } catch (const std::exception& e) {
    server_.journal().write(LogLevel::error, "the result cannot be sent: ", e.what());
    bytes = encoder_.frame(failure(id, "failed", "the result cannot be sent"));
  }
  outbox_.add(bytes);
}

/// The deadline is for all that waits now: a peer that reads a byte now and then would move one per write.
void ServerConnection::write() {
  const std::string_view batch = outbox_.begin();
  if (batch.empty()) return;
  write_deadline_ = Clock::now() + server_.options().write_time;
  channel_->write(batch, [self = shared_from_this(), channel = channel_](const error_code& error, size_t) {
    self->guard([&] {
      if (error) {
        self->server_.journal().write(LogLevel::info, self->name_, ": ", error.message());
        return self->close();
      }
      self->outbox_.end();
      self->go_on();
    });
  });
}

void ServerConnection::check(Clock::time_point now) {
  guard([&] {
    if (given_up_) throw Error("an answer was lost for want of memory");
    if (outbox_.writing() && now >= write_deadline_) throw Error("the client takes nothing");
    if (held_back_.empty()) patience_.check(in_progress_ > 0 || !outbox_.empty(), now);
  });
}

void ServerConnection::read_no_more() {
  ending_ = true;
  guard([this] {
    std::deque<VObject> refused;
    refused.swap(held_back_);
    for (const VObject& request : refused) {
      const VObject& id = request.getvec()[0];
      server_.note_dropped(request);
      if (id.type() != DT_NIL) send(failure(id, STOPPING, "the server is stopping"));
    }
    write();
    close_if_finished();
  });
}

}  // namespace RPC
}  // namespace VORN
