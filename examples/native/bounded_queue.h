/// A bounded queue between threads: adding to a full queue blocks, and so does taking from an empty one, until the
/// queue is closed.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <utility>

namespace rpc {

template <typename T>
class BoundedQueue {
 public:
  explicit BoundedQueue(size_t limit) : limit_(limit) {}

  /// False: the queue is closed, and the item is lost.
  bool push(T item) {
    std::unique_lock<std::mutex> hold(lock_);
    room_.wait(hold, [this] { return items_.size() < limit_ || closed_; });
    if (closed_) return false;
    items_.push_back(std::move(item));
    filled_.notify_one();
    return true;
  }

  /// False: the queue is closed and empty.
  bool pop(T& item) {
    std::unique_lock<std::mutex> hold(lock_);
    filled_.wait(hold, [this] { return !items_.empty() || closed_; });
    if (items_.empty()) return false;
    item = std::move(items_.front());
    items_.pop_front();
    room_.notify_one();
    return true;
  }

  bool empty() const {
    const std::lock_guard<std::mutex> hold(lock_);
    return items_.empty();
  }

  /// Drops the remaining items.
  void clear() {
    const std::lock_guard<std::mutex> hold(lock_);
    items_.clear();
    room_.notify_all();
  }

  void close() {
    const std::lock_guard<std::mutex> hold(lock_);
    closed_ = true;
    filled_.notify_all();
    room_.notify_all();
  }

 private:
  const size_t limit_;
  bool closed_ = false;
  std::deque<T> items_;
  mutable std::mutex lock_;
  std::condition_variable filled_, room_;
};

}  // namespace rpc
