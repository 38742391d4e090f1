/// What a client does on its executor: calls that wait, for a connection, for an answer, for their deadline.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "rpc/async_client.h"
#include "rpc/channel.h"
#include "rpc/client_options.h"
#include "rpc/detail/clock.h"
#include "rpc/outcome.h"
#include "vobject/vobject.h"

namespace VORN {
namespace RPC {

class ClientConnection;
class Inbox;

/// Belongs to the executor, except for call(), close() and close_behind().
class ClientLoop : public std::enable_shared_from_this<ClientLoop> {
 public:
  /// Begins to connect, and returns a function that gives up.
  using Connect = std::function<std::function<void()>(Clock::time_point deadline, Connected connected)>;

  /// connect: called for each connection.
  ClientLoop(const boost::asio::any_io_executor& executor, Connect connect, ClientOptions options);

  ~ClientLoop();

  const ClientOptions& options() const { return options_; }
  void call(const std::string& name, const VObjectVector& arguments, AsyncClient::Handler handler,
            const CallOptions& options, bool notification);
  void close();

  /// Closes behind its owner's end: later, on the executor, which keeps it alive.
  void close_behind();

 private:
  enum class State { idle, pausing, connecting, connected };

  using Deadlines = std::multimap<Clock::time_point, int32_t>;

  struct Call {
    VObject message;
    AsyncClient::Handler handler;
    Clock::time_point deadline;
    bool repeat = false;
    bool notification = false;
    uint64_t link = 0;          ///< on which it was sent; 0: it waits for one
    uint64_t batch = 0;         ///< in which it was sent there
    Deadlines::iterator place;  ///< of its deadline
  };
  using Calls = std::unordered_map<int32_t, Call>;

  /// A connection, and the notifications that were sent on it, in the order of their batches.
  struct Link {
    std::shared_ptr<ClientConnection> connection;
    std::deque<int32_t> notifications;
  };

  void close_now();
  void begin(Call call);
  void send(int32_t id);
  void flush();

  void connect();
  void connected(const boost::system::error_code& error, std::unique_ptr<Channel> channel);
  void use(uint64_t link, std::unique_ptr<Channel> channel);
  void cannot_connect(const std::string& reason);
  void pause();
  void rest();

  void answer(uint64_t link, const VObject& answer);
  bool call_again(Calls::iterator call);
  void deliver();
  void written(uint64_t link, uint64_t batch);
  void lose(uint64_t link, const std::string& reason);
  void remove(uint64_t link);
  void release(uint64_t link);

  void arm(Clock::time_point deadline);
  void look_at_deadlines();
  void expire(int32_t id);

  std::vector<int32_t> waiting() const;
  void end_impatient(const std::string& reason);
  template <typename Error>
  void fail(int32_t id, const std::string& reason);
  void end(int32_t id, Outcome outcome);
  AsyncClient::Handler take(Calls::iterator call);

  const boost::asio::any_io_executor executor_;
  const Connect connect_;
  const ClientOptions options_;
  std::shared_ptr<Inbox> inbox_;
  State state_ = State::idle;
  bool closed_ = false;
  std::map<uint64_t, Link> links_;  // by number; those before the current one are for calls in flight only
  uint64_t current_ = 0;            // the link for new calls; 0: none
  uint64_t last_link_ = 0;
  std::function<void()> give_up_;  // connecting
  uint64_t attempt_ = 0;           // numbers what connects
  std::string cannot_connect_;     // why the last attempt failed
  std::chrono::milliseconds delay_;
  boost::asio::steady_timer pause_;
  Calls calls_;  // by id; those of notifications are not sent
  Deadlines deadlines_;
  boost::asio::steady_timer timer_;
  Clock::time_point armed_ = Clock::time_point::max();             // when the timer looks at deadlines
  std::deque<std::pair<AsyncClient::Handler, Outcome>> answered_;  // their handlers are called behind what has arrived
  int32_t last_id_ = 0;
  std::minstd_rand random_;
};

}  // namespace RPC
}  // namespace VORN
