#include "rpc/detail/inbox.h"

#include <boost/asio/post.hpp>
#include <utility>

namespace VORN {
namespace RPC {

Inbox::Inbox(boost::asio::any_io_executor executor, Task behind)
    : executor_(std::move(executor)), behind_(std::move(behind)) {}

void Inbox::put(Task task) {
  const std::lock_guard<std::mutex> hold(lock_);
  if (closed_) return;
  tasks_.push_back(std::move(task));
  if (awake_) return;
  try {
    boost::asio::post(executor_, [self = shared_from_this()] { self->run(); });
  } catch (...) {
    tasks_.pop_back();
    throw;
  }
  awake_ = true;
}

void Inbox::gather(const Task& action) {
  {
    const std::lock_guard<std::mutex> hold(lock_);
    awake_ = true;
  }
  try {
    action();
  } catch (...) {
    boost::asio::post(executor_, [self = shared_from_this()] { self->run(); });
    throw;
  }
  run();
}

void Inbox::close() noexcept {
  std::vector<Task> dropped;  // their ends may put tasks
  Task behind;
  const std::lock_guard<std::mutex> hold(lock_);
  closed_ = true;
  tasks_.swap(dropped);
  executor_ = boost::asio::any_io_executor();
  behind_.swap(behind);
}

void Inbox::run() {
  std::vector<Task> tasks;
  {
    const std::lock_guard<std::mutex> hold(lock_);
    tasks.swap(tasks_);
    awake_ = false;
  }
  for (Task& task : tasks) {
    if (closed_) return;  // only this thread closes
    task();
  }
  if (behind_) behind_();
}

}  // namespace RPC
}  // namespace VORN
