#include "rpc/detail/client_connection.h"

#include <boost/asio/error.hpp>
#include <boost/system/error_code.hpp>
#include <exception>
#include <string_view>
#include <utility>

#include "rpc/detail/envelope.h"

namespace VORN {
namespace RPC {

using boost::system::error_code;

ClientConnection::ClientConnection(std::unique_ptr<Channel> channel, const ClientOptions& options, Listener listener)
    : channel_(std::move(channel)),
      listener_(std::move(listener)),
      decoder_({options.max_length, options.max_depth}),
      encoder_({options.max_length}),
      chunk_(new char[CHUNK]) {}

void ClientConnection::start() {
  guard([this] { read(); });
}

/// The connection fails for whatever the action throws.
template <typename Action>
void ClientConnection::guard(const Action& action) {
  if (closed_) return;
  try {
    return action();
  } catch (const std::exception& e) {
    fail(e.what());
  }
}

void ClientConnection::read() {
  channel_->read_some(chunk_.get(), CHUNK, [self = shared_from_this()](const error_code& error, size_t size) {
    if (self->closed_) return;
    self->guard([&] {
      if (error == boost::asio::error::eof) return self->fail("the server closed the connection");
      if (error) return self->fail(error.message());
      self->decoder_.feed({self->chunk_.get(), size}, [&](STREAM::StreamFrame& frame) {
        for (const VObject& answer : frame.messages) {
          check_answer(answer);
          self->listener_.answer(answer);
        }
      });
      if (!self->closed_) self->read();
    });
    self->listener_.behind();
  });
}

uint64_t ClientConnection::add(const VObject& request) {
  const uint64_t batch = outbox_.next_batch();
  outbox_.add(encoder_.frame(request));
  return batch;
}

void ClientConnection::flush() {
  guard([this] {
    const std::string_view batch = outbox_.begin();
    if (batch.empty()) return;
    channel_->write(batch, [self = shared_from_this()](const error_code& error, size_t) {
      self->guard([&] {
        if (error) return self->fail("sending failed: " + error.message());
        self->outbox_.end();
        self->listener_.written(self->outbox_.written());
        self->flush();
      });
    });
  });
}

void ClientConnection::fail(const std::string& reason) {
  if (closed_) return;
  close();
  listener_.failed(reason);
}

void ClientConnection::close() noexcept {
  closed_ = true;
  channel_->close();
}

}  // namespace RPC
}  // namespace VORN
