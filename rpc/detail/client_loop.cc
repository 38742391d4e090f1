#include "rpc/detail/client_loop.h"

#include <algorithm>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/system/error_code.hpp>
#include <exception>
#include <utility>

#include "rpc/detail/client_connection.h"
#include "rpc/detail/envelope.h"
#include "rpc/detail/inbox.h"
#include "rpc/errors.h"

namespace VORN {
namespace RPC {

using boost::system::error_code;

namespace {

// Between two attempts to connect.
constexpr std::chrono::milliseconds FIRST_PAUSE{50};
constexpr std::chrono::milliseconds LONGEST_PAUSE{1000};

}  // namespace

ClientLoop::ClientLoop(const boost::asio::any_io_executor& executor, Connect connect, ClientOptions options)
    : executor_(executor),
      connect_(std::move(connect)),
      options_(options),
      inbox_(std::make_shared<Inbox>(executor, [this] { flush(); })),
      delay_(FIRST_PAUSE),
      pause_(executor),
      timer_(executor),
      random_(std::random_device()()) {}

ClientLoop::~ClientLoop() {
  inbox_->close();
  for (const auto& [number, link] : links_) link.connection->close();
}

void ClientLoop::call(const std::string& name, const VObjectVector& arguments, AsyncClient::Handler handler,
                      const CallOptions& options, bool notification) {
  Call call;
  call.message = request(VObject(), name, arguments);
  call.handler = std::move(handler);
  call.deadline = Clock::now() + options.timeout;
  call.repeat = options.repeat;
  call.notification = notification;
  inbox_->put([this, call = std::move(call)]() mutable { begin(std::move(call)); });
}

void ClientLoop::close() {
  inbox_->put([this] { close_now(); });
}

void ClientLoop::close_behind() {
  boost::asio::post(executor_, [self = shared_from_this()] { self->close_now(); });
}

void ClientLoop::close_now() {
  if (std::exchange(closed_, true)) return;
  rest();
  for (const auto& [number, link] : links_) link.connection->close();
  links_.clear();
  current_ = 0;
  while (!calls_.empty()) fail<ConnectionLost>(calls_.begin()->first, "the client is closed");
  timer_.cancel();
}

void ClientLoop::begin(Call call) {
  const int32_t id = last_id_ = next_id(last_id_, calls_);
  const Clock::time_point deadline = call.deadline;
  call.place = deadlines_.emplace_hint(deadlines_.end(), deadline, id);
  if (!call.notification) call.message.getvec()[0] = VObject(id);
  calls_.emplace(id, std::move(call));
  if (closed_) return fail<ConnectionLost>(id, "the client is closed");
  arm(deadline);
  switch (state_) {
    case State::connected: return send(id);
    case State::connecting: return;
    case State::pausing:
      if (deadline >= pause_.expiry()) return;
      break;
    case State::idle: break;
  }
  connect();
}

/// Sends a request, behind all that are put into the inbox with it.
void ClientLoop::send(int32_t id) {
  Call& call = calls_.at(id);
  Link& link = links_.at(current_);
  try {
    if (call.notification) link.notifications.push_back(id);
    call.batch = link.connection->add(call.message);
  } catch (const std::exception&) {
    return end(id, Outcome(std::current_exception()));
  }
  call.link = current_;
}

void ClientLoop::flush() {
  if (current_ == 0) return;
  const std::shared_ptr<ClientConnection> connection = links_.at(current_).connection;  // may be lost here
  connection->flush();
}

void ClientLoop::connect() {
  Clock::time_point deadline = Clock::time_point::min();
  for (const int32_t id : waiting()) deadline = std::max(deadline, calls_.at(id).deadline);
  state_ = State::connecting;
  const uint64_t attempt = ++attempt_;
  pause_.cancel();
  try {
    give_up_ = connect_(deadline,
                        [weak = weak_from_this(), attempt](const error_code& error, std::unique_ptr<Channel> channel) {
                          const auto self = weak.lock();
                          const bool late = !self || self->attempt_ != attempt || self->state_ != State::connecting;
                          if (!late) self->connected(error, std::move(channel));
                        });
  } catch (const std::exception& e) {
    cannot_connect(e.what());
  }
}

void ClientLoop::connected(const error_code& error, std::unique_ptr<Channel> channel) {
  if (error || !channel) return cannot_connect(error ? error.message() : "there is no channel");
  const uint64_t link = ++last_link_;
  try {
    use(link, std::move(channel));
  } catch (const std::exception& e) {
    remove(link);
    cannot_connect(e.what());
  }
}

void ClientLoop::use(uint64_t link, std::unique_ptr<Channel> channel) {
  ClientConnection::Listener listener;
  listener.answer = [this, link](const VObject& message) { answer(link, message); };
  listener.behind = [this] { deliver(); };
  listener.written = [this, link](uint64_t batch) { written(link, batch); };
  listener.failed = [this, link](const std::string& reason) { lose(link, reason); };
  const auto connection = std::make_shared<ClientConnection>(std::move(channel), options_, std::move(listener));
  links_.emplace(link, Link{connection, {}});
  current_ = link;
  state_ = State::connected;
  for (const int32_t id : waiting()) send(id);
  connection->start();
  flush();
}

void ClientLoop::cannot_connect(const std::string& reason) {
  cannot_connect_ = reason;
  end_impatient("cannot connect: " + reason);
  pause();
}

/// Tries again after a while, if a call still waits for a connection.
void ClientLoop::pause() {
  if (waiting().empty()) return rest();
  state_ = State::pausing;
  // Jitter: when a server comes back, its clients must not all return at once.
  std::uniform_int_distribution<int64_t> jitter(delay_.count() / 2, delay_.count());
  pause_.expires_after(std::chrono::milliseconds(jitter(random_)));
  delay_ = std::min(2 * delay_, LONGEST_PAUSE);
  pause_.async_wait([self = shared_from_this()](const error_code& error) {
    if (!error && self->state_ == State::pausing) self->connect();
  });
}

/// No call waits for a connection any more.
void ClientLoop::rest() {
  state_ = State::idle;
  delay_ = FIRST_PAUSE;
  ++attempt_;
  pause_.cancel();
  if (give_up_) std::exchange(give_up_, nullptr)();
}

/// An answer that nobody waits for is of a call that has timed out. Only a call's first answer counts.
void ClientLoop::answer(uint64_t link, const VObject& answer) {
  const VObjectVector& parts = answer.getvec();
  const int64_t id = parts[0].type() == DT_INT ? parts[0].to_i64() : 0;
  if (id < 1 || id > MAX_ID) return;
  const auto found = calls_.find(static_cast<int32_t>(id));
  if (found == calls_.end() || found->second.link != link || found->second.notification) return;
  Outcome outcome(parts[2]);
  if (parts[1].type() == DT_NIL) {
    delay_ = FIRST_PAUSE;
  } else {
    const VObjectVector& error = parts[1].getvec();
    const bool stopping = error[0].getstr() == STOPPING;
    if (stopping && call_again(found)) return;
    if (!stopping) delay_ = FIRST_PAUSE;
    outcome = Outcome(std::make_exception_ptr(RemoteError(error[0].getstr(), error[1].getstr())));
  }
  AsyncClient::Handler handler = take(found);
  if (handler) answered_.emplace_back(std::move(handler), std::move(outcome));
}

/// A server that is stopping has not executed the call. Its connection is kept for the calls in flight, and another one
/// serves the rest. False: the call's deadline comes before the next attempt.
bool ClientLoop::call_again(Calls::iterator call) {
  const uint64_t link = std::exchange(call->second.link, 0);
  if (link == current_) {
    current_ = 0;
    state_ = State::idle;
  }
  const bool again = call->second.deadline >= Clock::now() + delay_;
  if (again && state_ == State::idle) pause();
  if (again && state_ == State::connected) {
    send(call->first);
    flush();
  }
  release(link);
  return again;
}

/// Closes a connection that is for calls in flight only, when there are none.
void ClientLoop::release(uint64_t link) {
  const auto found = links_.find(link);
  if (found == links_.end() || link == current_) return;
  for (const auto& [id, call] : calls_) {
    if (call.link == link) return;
  }
  found->second.connection->close();
  links_.erase(found);
}

/// Calls the handlers of calls that have been answered. What they call is sent behind all of them.
void ClientLoop::deliver() {
  if (answered_.empty()) return;
  const auto self = shared_from_this();  // a handler may end the client
  try {
    inbox_->gather([this] {
      while (!answered_.empty()) {
        const auto [handler, outcome] = std::move(answered_.front());
        answered_.pop_front();
        handler(outcome);
      }
    });
  } catch (...) {
    boost::asio::post(executor_, [self] { self->deliver(); });
    throw;
  }
}

void ClientLoop::written(uint64_t link, uint64_t batch) {
  std::deque<int32_t>& notifications = links_.at(link).notifications;
  std::vector<int32_t> ended;
  while (!notifications.empty()) {
    const auto found = calls_.find(notifications.front());
    const bool sent = found != calls_.end() && found->second.link == link;
    if (sent && found->second.batch > batch) break;
    if (sent) ended.push_back(found->first);
    notifications.pop_front();
  }
  for (const int32_t id : ended) end(id, Outcome(VObject()));
}

void ClientLoop::lose(uint64_t link, const std::string& reason) {
  std::vector<int32_t> ended;
  for (const auto& [id, call] : calls_) {
    if (call.link == link && !call.repeat) ended.push_back(id);
  }
  remove(link);
  for (const int32_t id : ended) fail<ConnectionLost>(id, reason);
  end_impatient(reason);
  if (state_ == State::idle) return pause();
  if (state_ != State::connected) return;
  for (const int32_t id : waiting()) send(id);
  flush();
}

/// Forgets a connection. Its calls wait for another one.
void ClientLoop::remove(uint64_t link) {
  const auto found = links_.find(link);
  if (found == links_.end()) return;
  found->second.connection->close();
  links_.erase(found);
  for (auto& [id, call] : calls_) {
    if (call.link == link) call.link = 0;
  }
  if (link != current_) return;
  current_ = 0;
  state_ = State::idle;
}

/// Lets the timer look at deadlines at this one, unless it will before.
void ClientLoop::arm(Clock::time_point deadline) {
  if (deadline >= armed_) return;
  armed_ = deadline;
  timer_.expires_at(deadline);
  timer_.async_wait([self = shared_from_this()](const error_code& error) {
    if (!error && !self->closed_) self->look_at_deadlines();
  });
}

void ClientLoop::look_at_deadlines() {
  armed_ = Clock::time_point::max();
  const Clock::time_point now = Clock::now();
  while (!deadlines_.empty() && deadlines_.begin()->first <= now) expire(deadlines_.begin()->second);
  if (!deadlines_.empty()) arm(deadlines_.begin()->first);
}

void ClientLoop::expire(int32_t id) {
  const Call& call = calls_.at(id);
  const uint64_t link = call.link;
  const std::shared_ptr<ClientConnection> connection = link == 0 ? nullptr : links_.at(link).connection;
  if (!connection) {
    fail<ConnectionLost>(id, "cannot connect: " + (cannot_connect_.empty() ? "not in time" : cannot_connect_));
    if (state_ != State::connected && waiting().empty()) rest();
  } else if (connection->has_written(call.batch)) {
    fail<TimedOut>(id, "no answer in time");
  } else {
    // Nothing can follow a part of a frame.
    connection->close();
    lose(link, "sending failed: the server takes nothing");
  }
}

/// Calls that wait for a connection, in their order.
std::vector<int32_t> ClientLoop::waiting() const {
  std::vector<int32_t> ids;
  for (const auto& [id, call] : calls_) {
    if (call.link == 0) ids.push_back(id);
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

/// Ends the calls that wait for a connection and whose deadline comes before the next attempt.
void ClientLoop::end_impatient(const std::string& reason) {
  const Clock::time_point next = Clock::now() + delay_;
  for (const int32_t id : waiting()) {
    if (calls_.at(id).deadline < next) fail<ConnectionLost>(id, reason);
  }
}

template <typename Error>
void ClientLoop::fail(int32_t id, const std::string& reason) {
  end(id, Outcome(std::make_exception_ptr(Error(reason))));
}

/// A handler may do anything, so it is called when nothing of this is in progress.
void ClientLoop::end(int32_t id, Outcome outcome) {
  AsyncClient::Handler handler = take(calls_.find(id));
  if (!handler) return;
  boost::asio::post(executor_, [handler = std::move(handler), outcome = std::move(outcome)] { handler(outcome); });
}

/// Forgets a call, and returns its handler.
AsyncClient::Handler ClientLoop::take(Calls::iterator call) {
  AsyncClient::Handler handler = std::move(call->second.handler);
  const uint64_t link = call->second.link;
  deadlines_.erase(call->second.place);
  calls_.erase(call);
  release(link);
  return handler;
}

}  // namespace RPC
}  // namespace VORN
