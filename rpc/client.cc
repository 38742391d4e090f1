#include "rpc/client.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <condition_variable>
#include <list>
#include <mutex>
#include <optional>
#include <utility>

#include "rpc/async_client.h"
#include "rpc/outcome.h"

namespace VORN {
namespace RPC {

/// Threads that wait for answers run the client's io_context, one at a time.
class Client::Driver {
 public:
  Driver(const std::string& address, const ClientOptions& options)
      : io_(1), work_(io_.get_executor()), options_(options), client_(io_.get_executor(), address, options) {}

  Driver(const MakeConnector& make_connector, const ClientOptions& options)
      : io_(1),
        work_(io_.get_executor()),
        options_(options),
        client_(io_.get_executor(), make_connector(io_.get_executor()), options) {}

  const ClientOptions& options() const { return options_; }
  AsyncClient& client() { return client_; }

  /// Does what can be done at once, unless another thread does it. That the server has gone while no call was waiting
  /// is found here, before a request is lost.
  void poll() {
    std::unique_lock<std::mutex> hold(lock_);
    if (!driven_) drive(hold, [this] { io_.poll(); });
    wake_next();
  }

  /// Makes a call with the handler that `begin` gets, and returns its result.
  template <typename Begin>
  VObject wait(const Begin& begin) {
    poll();
    const auto waiter = std::make_shared<Waiter>();
    begin([this, waiter](const Outcome& outcome) {
      const std::lock_guard<std::mutex> hold(lock_);
      waiter->outcome.emplace(outcome);
      waiter->ready.notify_one();
    });
    std::unique_lock<std::mutex> hold(lock_);
    const auto place = waiters_.insert(waiters_.end(), waiter.get());
    try {
      while (!waiter->outcome) {
        if (driven_) {
          waiter->ready.wait(hold);
        } else {
          // Only this thread stores outcomes while it drives.
          drive(hold, [&] {
            while (!waiter->outcome) io_.run_one();
          });
        }
      }
    } catch (...) {
      waiters_.erase(place);
      wake_next();
      throw;
    }
    waiters_.erase(place);
    wake_next();
    hold.unlock();
    return waiter->outcome->result();
  }

 private:
  struct Waiter {
    std::optional<Outcome> outcome;
    std::condition_variable ready;
  };

  template <typename Action>
  void drive(std::unique_lock<std::mutex>& hold, const Action& action) {
    driven_ = true;
    hold.unlock();
    try {
      action();
    } catch (...) {
      hold.lock();
      driven_ = false;
      throw;
    }
    hold.lock();
    driven_ = false;
  }

  /// Lets a call that waits go on driving, if nobody does. The lock is held.
  void wake_next() {
    if (!driven_ && !waiters_.empty()) waiters_.front()->ready.notify_one();
  }

  boost::asio::io_context io_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
  const ClientOptions options_;
  std::mutex lock_;             // guards what follows, and the outcomes; never held while waiting for the peer
  bool driven_ = false;         // a thread runs the io_context
  std::list<Waiter*> waiters_;  // whose calls have not ended
  AsyncClient client_;
};

Client::Client(const std::string& address, const ClientOptions& options)
    : driver_(std::make_unique<Driver>(address, options)) {}

Client::Client(const MakeConnector& make_connector, const ClientOptions& options)
    : driver_(std::make_unique<Driver>(make_connector, options)) {}

Client::~Client() = default;

VObject Client::call(const std::string& name, const VObjectVector& arguments) {
  return call(name, arguments, driver_->options().calls);
}

VObject Client::call(const std::string& name, const VObjectVector& arguments, const CallOptions& options) {
  return driver_->wait(
      [&](AsyncClient::Handler handler) { driver_->client().call(name, arguments, std::move(handler), options); });
}

void Client::notify(const std::string& name, const VObjectVector& arguments) {
  notify(name, arguments, driver_->options().calls);
}

void Client::notify(const std::string& name, const VObjectVector& arguments, const CallOptions& options) {
  driver_->wait(
      [&](AsyncClient::Handler handler) { driver_->client().notify(name, arguments, std::move(handler), options); });
}

void Client::close() {
  driver_->client().close();
  driver_->poll();
}

}  // namespace RPC
}  // namespace VORN
