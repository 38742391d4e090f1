#include "rpc/answer.h"

#include <cassert>
#include <utility>

#include "rpc/detail/envelope.h"
#include "rpc/detail/inbox.h"
#include "rpc/detail/receiver.h"
#include "rpc/detail/server_connection.h"

namespace VORN {
namespace RPC {

void Answer::Receiver::send(const VObject& message) const {
  inbox->put([to = connection, message] { to->finish(message); });
}

Answer::Answer(std::unique_ptr<Receiver> receiver) noexcept : receiver_(std::move(receiver)) {}

Answer::Answer(Answer&& src) noexcept = default;

Answer& Answer::operator=(Answer&& src) noexcept {
  if (this == &src) return *this;
  drop();
  receiver_ = std::move(src.receiver_);
  return *this;
}

Answer::~Answer() {
  drop();
}

void Answer::result(const VObject& value) {
  assert(receiver_ != nullptr);
  const VObject& id = receiver_->id;
  receiver_->send(id.type() == DT_NIL ? VObject() : success(id, value));
  receiver_.reset();
}

void Answer::error(const std::string& code, const std::string& text) {
  assert(receiver_ != nullptr);
  const VObject& id = receiver_->id;
  receiver_->send(id.type() == DT_NIL ? VObject() : failure(id, code, text));
  receiver_.reset();
}

bool Answer::wanted() const {
  assert(receiver_ != nullptr);
  return !receiver_->connection->gone();
}

void Answer::drop() noexcept {
  if (!receiver_) return;
  try {
    error("failed", "the service failed");
  } catch (...) {
    receiver_->connection->give_up();  // an answer that cannot even be refused
    receiver_.reset();
  }
}

}  // namespace RPC
}  // namespace VORN
