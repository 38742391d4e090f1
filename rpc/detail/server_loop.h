/// What a server does on its executor: it accepts, counts, looks at deadlines, and ends.
#pragma once

#include <atomic>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "rpc/channel.h"
#include "rpc/detail/address.h"
#include "rpc/detail/clock.h"
#include "rpc/detail/journal.h"
#include "rpc/detail/method_runner.h"
#include "rpc/server_options.h"
#include "vobject/vobject.h"

namespace VORN {
namespace RPC {

class Inbox;
class ServerConnection;

/// Belongs to the executor, except for serve() and stop().
class ServerLoop : public std::enable_shared_from_this<ServerLoop> {
 public:
  ServerLoop(const boost::asio::any_io_executor& executor, Methods methods, ServerOptions options);
  ~ServerLoop();

  /// Begins to accept connections, if there is an address, and to look at deadlines.
  void start(const std::optional<Address>& address);

  /// Ends everything at once, and waits for the workers.
  void shut_down();

  const std::string& address() const { return address_; }
  void serve(std::unique_ptr<Channel> channel);
  void stop();

  // For connections.

  const ServerOptions& options() const { return options_; }
  Journal& journal() { return journal_; }
  size_t max_in_progress() const { return options_.max_in_progress; }

  /// Whether another request may be begun.
  bool has_room() const { return *in_progress_ < options_.max_in_progress_of_all; }
  /// Whether this one is run on the executor, room or not.
  bool is_inline(const VObject& request) const;
  /// Lets the connection go on when one may.
  void wait_for_room(std::shared_ptr<ServerConnection> connection);
  /// Runs a request. ServerConnection::finish() gets the answer, never before this has returned.
  void begin(std::shared_ptr<ServerConnection> connection, VObject request);
  /// Logs a request that is not executed, since the server is stopped, if its sender is not told.
  void note_dropped(const VObject& request);
  /// Does something that may begin requests, and then takes the answers that there are.
  void gather(const std::function<void()>& action);
  /// Lets the connection go on behind all answers that there are now.
  void attend(std::shared_ptr<ServerConnection> connection);
  void forget(ServerConnection& connection) noexcept;

  /// A request has been answered, whatever has become of its connection.
  void answered() { --*in_progress_; }
  /// How many have not been.
  std::shared_ptr<std::atomic<size_t>> in_progress() const { return in_progress_; }

 private:
  template <typename Action>
  void guard(const Action& action) noexcept;
  void accept();
  void accepted(const boost::system::error_code& error, Socket socket);
  void open(std::unique_ptr<Channel> channel);
  void work(VObject& request, std::unique_ptr<Answer::Receiver> receiver);
  void go_on();
  void sweep();
  void begin_stop();
  void end() noexcept;
  std::vector<std::shared_ptr<ServerConnection>> connections() const;

  const boost::asio::any_io_executor executor_;
  const ServerOptions options_;
  Journal journal_;
  const MethodRunner runner_;
  std::shared_ptr<Inbox> inbox_;
  Acceptor acceptor_;
  bool accepting_ = false;
  std::string address_;
  boost::asio::steady_timer sweeper_;
  std::unordered_map<ServerConnection*, std::shared_ptr<ServerConnection>> connections_;
  std::vector<std::shared_ptr<ServerConnection>> attention_;        // finished answers
  std::deque<std::shared_ptr<ServerConnection>> waiting_for_room_;  // in their order
  // Requests of all connections, those that are gone included. An answer that is lost gives its place back on whatever
  // thread that happens, also when the server is gone.
  const std::shared_ptr<std::atomic<size_t>> in_progress_ = std::make_shared<std::atomic<size_t>>(0);
  std::atomic<bool> stopping_{false};
  std::optional<Clock::time_point> ends_;  // when whatever is still open is closed
  bool ended_ = false;
  std::optional<boost::asio::thread_pool> workers_;
};

}  // namespace RPC
}  // namespace VORN
