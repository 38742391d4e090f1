#include "rpc/detail/server_loop.h"

#include <algorithm>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/system/error_code.hpp>
#include <chrono>
#include <exception>
#include <set>
#include <stdexcept>
#include <utility>

#include "rpc/detail/envelope.h"
#include "rpc/detail/inbox.h"
#include "rpc/detail/printable.h"
#include "rpc/detail/receiver.h"
#include "rpc/detail/server_connection.h"

namespace VORN {
namespace RPC {

using boost::system::error_code;

namespace {

constexpr std::chrono::milliseconds SWEEP_TIME{250};  // deadlines may be late by as much

ServerOptions completed(ServerOptions options, const Methods& methods) {
  if (options.max_length < ServerOptions::LEAST_LENGTH) {
    throw std::invalid_argument("max_length leaves no room for errors");
  }
  if (options.max_in_progress == 0) {
    options.max_in_progress = options.workers > 0 ? std::max<size_t>(options.workers / 2, 1) : 16;
  }
  if (options.max_in_progress_of_all == 0) throw std::invalid_argument("max_in_progress_of_all lets nothing begin");
  for (const std::string& name : options.inline_methods) {
    const Methods::Entry* entry = methods.find(name);
    if (entry != nullptr && entry->body) continue;
    throw std::invalid_argument("no method that returns its result, to run inline: " + name);
  }
  return options;
}

}  // namespace

ServerLoop::ServerLoop(const boost::asio::any_io_executor& executor, Methods methods, ServerOptions options)
    : executor_(executor),
      options_(completed(std::move(options), methods)),
      journal_(options_.log),
      runner_(std::move(methods), options_.around, journal_),
      inbox_(std::make_shared<Inbox>(executor, [this] { go_on(); })),
      acceptor_(executor),
      sweeper_(executor) {
  if (options_.workers > 0) workers_.emplace(options_.workers);
}

ServerLoop::~ServerLoop() = default;

void ServerLoop::start(const std::optional<Address>& address) {
  if (address) {
    listen(acceptor_, *address);
    address_ = address_of(acceptor_, *address);
    accept();
  }
  sweep();
}

void ServerLoop::shut_down() {
  stopping_ = true;
  inbox_->close();
  end();
  if (workers_) workers_->join();  // they refuse what has not begun
}

void ServerLoop::serve(std::unique_ptr<Channel> channel) {
  // Tasks are copied, a channel is not.
  auto shared = std::make_shared<std::unique_ptr<Channel>>(std::move(channel));
  inbox_->put([this, shared] { guard([&] { open(std::move(*shared)); }); });
}

void ServerLoop::stop() {
  stopping_ = true;
  inbox_->put([this] { guard([&] { begin_stop(); }); });
}

/// Without memory or descriptors, what was begun is not done.
template <typename Action>
void ServerLoop::guard(const Action& action) noexcept {
  try {
    action();
  } catch (const std::exception& e) {
    journal_.write(LogLevel::error, e.what());
  }
}

void ServerLoop::accept() {
  if (accepting_ || !acceptor_.is_open()) return;
  acceptor_.async_accept(executor_, [self = shared_from_this()](const error_code& error, Socket socket) {
    self->accepting_ = false;
    if (self->ended_ || !self->acceptor_.is_open()) return;
    self->guard([&] { self->accepted(error, std::move(socket)); });
  });
  accepting_ = true;
}

void ServerLoop::accepted(const error_code& error, Socket socket) {
  if (!error) {
    guard([&] { open(channel_of(executor_, std::move(socket))); });
  } else if (error != boost::asio::error::connection_aborted) {
    return journal_.write(LogLevel::error, error.message());  // descriptors ran out: until the next sweep
  }
  accept();
}

void ServerLoop::open(std::unique_ptr<Channel> channel) {
  if (!channel || ends_ || ended_) return;
  if (connections_.size() >= options_.max_connections) {
    return journal_.write(LogLevel::warning, "too many connections; closing the newest");
  }
  const auto connection = std::make_shared<ServerConnection>(*this, std::move(channel), Clock::now());
  connections_.emplace(connection.get(), connection);
  connection->start();
}

void ServerLoop::begin(std::shared_ptr<ServerConnection> connection, VObject request) {
  auto receiver = std::make_unique<Answer::Receiver>();
  receiver->inbox = inbox_;
  receiver->connection = std::move(connection);
  receiver->id = request.getvec()[0];
  if (!workers_ || is_inline(request)) {
    ++*in_progress_;
    return work(request, std::move(receiver));
  }
  boost::asio::post(*workers_, [this, request = std::move(request), receiver = std::move(receiver)]() mutable {
    guard([&] { work(request, std::move(receiver)); });
  });
  ++*in_progress_;
}

void ServerLoop::work(VObject& request, std::unique_ptr<Answer::Receiver> receiver) {
  // What has not begun when the server is stopped can safely be sent to another one.
  if (stopping_) {
    note_dropped(request);
    return Answer(std::move(receiver)).error(STOPPING, "the server is stopping");
  }
  if (receiver->connection->gone()) {
    const Answer unwanted(std::move(receiver));  // without memory it is given up
    return;
  }
  runner_.run(request, std::move(receiver));
}

bool ServerLoop::is_inline(const VObject& request) const {
  const std::set<std::string>& names = options_.inline_methods;
  return !names.empty() && names.count(request.getvec()[1].getstr()) > 0;
}

void ServerLoop::note_dropped(const VObject& request) {
  const VObjectVector& parts = request.getvec();
  if (parts[0].type() != DT_NIL) return;
  journal_.write(LogLevel::warning, printable(shown(parts[1].getstr())), ": dropped, the server is stopping");
}

void ServerLoop::gather(const std::function<void()>& action) {
  inbox_->gather(action);
}

void ServerLoop::attend(std::shared_ptr<ServerConnection> connection) {
  attention_.push_back(std::move(connection));
}

void ServerLoop::wait_for_room(std::shared_ptr<ServerConnection> connection) {
  waiting_for_room_.push_back(std::move(connection));
}

void ServerLoop::forget(ServerConnection& connection) noexcept {
  connections_.erase(&connection);
  if (ends_ && connections_.empty()) end();
}

/// Behind the tasks of the inbox: all answers that there are have been taken.
void ServerLoop::go_on() {
  std::vector<std::shared_ptr<ServerConnection>> attended;
  attended.swap(attention_);
  for (const auto& connection : attended) connection->go_on();
  for (size_t waiting = waiting_for_room_.size(); waiting > 0 && !waiting_for_room_.empty() && has_room(); --waiting) {
    const std::shared_ptr<ServerConnection> connection = std::move(waiting_for_room_.front());
    waiting_for_room_.pop_front();
    connection->take_room();
  }
}

void ServerLoop::sweep() {
  sweeper_.expires_after(SWEEP_TIME);
  sweeper_.async_wait([self = shared_from_this()](const error_code&) {
    if (self->ended_) return;
    self->guard([&] { self->sweep(); });
  });
  const Clock::time_point now = Clock::now();
  if (ends_ && now >= *ends_) return end();
  for (const auto& connection : connections()) connection->check(now);
  inbox_->gather([] {});  // what has happened when there was no memory to tell the executor
  accept();
}

/// Those that are open now: what is done to them may close them.
std::vector<std::shared_ptr<ServerConnection>> ServerLoop::connections() const {
  std::vector<std::shared_ptr<ServerConnection>> all;
  all.reserve(connections_.size());
  for (const auto& [_, connection] : connections_) all.push_back(connection);
  return all;
}

void ServerLoop::begin_stop() {
  if (ends_ || ended_) return;
  ends_ = Clock::now() + options_.stop_time;
  error_code ignored;
  acceptor_.close(ignored);
  for (const auto& connection : connections()) connection->read_no_more();
  if (connections_.empty()) end();
}

void ServerLoop::end() noexcept {
  if (std::exchange(ended_, true)) return;
  error_code ignored;
  acceptor_.close(ignored);
  try {
    sweeper_.cancel();
  } catch (const std::exception&) {
    // It goes off once more, and finds that the server has ended.
  }
  attention_.clear();
  waiting_for_room_.clear();
  std::unordered_map<ServerConnection*, std::shared_ptr<ServerConnection>> connections;
  connections.swap(connections_);
  for (const auto& [_, connection] : connections) connection->close();
}

}  // namespace RPC
}  // namespace VORN
