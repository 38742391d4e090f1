/// A queue between threads that holds at most so many: whoever adds more waits, and so does who takes from an
/// empty one, until it is closed.
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

  /// False: it is closed, and the item is gone.
  bool push(T item) {
    std::unique_lock<std::mutex> hold(lock_);
    room_.wait(hold, [this] { return items_.size() < limit_ || closed_; });
    if (closed_) return false;
    items_.push_back(std::move(item));
    filled_.notify_one();
    return true;
  }

  /// False: it is closed, and all items have been taken.
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

  /// Drops what nobody has taken.
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
