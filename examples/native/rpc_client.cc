#include "examples/native/rpc_client.h"

#include <limits>
#include <system_error>
#include <utility>

#include "examples/native/bad_message.h"
#include "stream/stream_decoder.h"

namespace rpc {

using VORN::VObject;
using VORN::VObjectVector;

namespace {

Socket connect(const std::string& address, Clock::time_point deadline) {
  try {
    return connect_to(address, deadline);
  } catch (const std::system_error& e) {
    throw ConnectionLost(std::string("cannot connect: ") + e.what());
  }
}

/// Accepts [id, nil, result] and [id, [code, text], nil]; the server is not trusted to send nothing else.
bool is_answer(const VObject& answer) {
  if (answer.type() != VORN::DT_VECTOR || answer.getvec().size() != 3) return false;
  const VObject& error = answer.getvec()[1];
  if (error.type() == VORN::DT_NIL) return true;
  return error.type() == VORN::DT_VECTOR && error.getvec().size() == 2 && error.getvec()[0].type() == VORN::DT_STR &&
         error.getvec()[1].type() == VORN::DT_STR;
}

}  // namespace

RpcClient::RpcClient(const std::string& address, bool twelve_byte_header, std::chrono::milliseconds timeout)
    : socket_(connect(address, Clock::now() + timeout)),
      encoder_({MAX_PAYLOAD, twelve_byte_header}),
      reader_([this] { read(); }) {}

RpcClient::~RpcClient() {
  socket_.shutdown();
  reader_.join();
}

VObject RpcClient::call(const std::string& method, const VObjectVector& arguments, std::chrono::milliseconds timeout) {
  const Clock::time_point deadline = Clock::now() + timeout;
  Result result;
  std::future<VObject> answer = result.get_future();
  const int32_t id = enter(result);
  try {
    send(VObject(VObjectVector{id, method, VObject(arguments)}), deadline);
    if (answer.wait_until(deadline) != std::future_status::ready) throw TimedOut("no answer in time");
  } catch (...) {
    leave(id);
    throw;
  }
  leave(id);
  return answer.get();
}

int32_t RpcClient::enter(Result& result) {
  const std::lock_guard<std::mutex> hold(lock_);
  if (!lost_.empty()) throw ConnectionLost(lost_);
  do {
    // A Ruby peer would cut an id beyond 32 bits. After wrapping around, a pending call may still have this id.
    last_id_ = last_id_ == std::numeric_limits<int32_t>::max() ? 1 : last_id_ + 1;
  } while (calls_.count(last_id_) != 0);
  calls_[last_id_] = &result;
  return last_id_;
}

/// After this call the reader no longer touches the result.
void RpcClient::leave(int32_t id) {
  const std::lock_guard<std::mutex> hold(lock_);
  calls_.erase(id);
}

void RpcClient::send(const VObject& request, Clock::time_point deadline) {
  const std::lock_guard<std::mutex> hold(writing_);
  const std::string_view bytes = encoder_.frame(request);
  try {
    socket_.send_all(bytes, deadline);
  } catch (const std::system_error& e) {
    // Part of the frame may have been sent: nothing can follow it.
    socket_.shutdown();
    throw ConnectionLost(std::string("sending failed: ") + e.what());
  }
}

void RpcClient::read() {
  try {
    VORN::STREAM::StreamDecoder decoder({MAX_PAYLOAD});
    std::string bytes;
    while (socket_.receive(bytes)) {
      decoder.feed(bytes, [this](VORN::STREAM::StreamFrame& frame) {
        for (const VObject& answer : frame.messages) accept(answer);
      });
      bytes.clear();
    }
    lose("the server closed the connection");
  } catch (const std::exception& e) {
    socket_.shutdown();
    lose(e.what());
  }
}

void RpcClient::accept(const VObject& message) {
  if (!is_answer(message)) throw BadMessage("not an answer");
  const VObjectVector& answer = message.getvec();
  const std::lock_guard<std::mutex> hold(lock_);
  const auto found = answer[0].type() == VORN::DT_INT ? calls_.find(answer[0].to_i64()) : calls_.end();
  if (found == calls_.end()) {
    ++late_;
    return;
  }
  Result& result = *found->second;
  calls_.erase(found);  // a second answer with this id counts as late
  if (answer[1].type() == VORN::DT_NIL) {
    result.set_value(answer[2]);
  } else {
    const VObjectVector& error = answer[1].getvec();
    result.set_exception(std::make_exception_ptr(RemoteError(error[0].getstr() + ": " + error[1].getstr())));
  }
}

void RpcClient::lose(const std::string& reason) {
  const std::lock_guard<std::mutex> hold(lock_);
  lost_ = reason;
  for (const auto& [id, result] : calls_) result->set_exception(std::make_exception_ptr(ConnectionLost(reason)));
  calls_.clear();
}

}  // namespace rpc
