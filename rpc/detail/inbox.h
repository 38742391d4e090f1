/// The way from any thread to the executor: tasks, in the order in which they were put.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace VORN {
namespace RPC {

/// Wakes the executor once for all tasks that it has not taken yet. What puts tasks may outlive who takes them.
class Inbox : public std::enable_shared_from_this<Inbox> {
 public:
  using Task = std::function<void()>;

  /// behind: called on the executor, behind the tasks that it has taken at once.
  Inbox(boost::asio::any_io_executor executor, Task behind);

  /// Any thread may put a task. Tasks do not throw. They are dropped when the inbox is closed. Throws std::bad_alloc.
  void put(Task task);

  /// On the executor, but not in a task: does something, and then what it has put, without waking the executor. Throws
  /// what `action` throws; what it has put then is done later.
  void gather(const Task& action);

  /// Lets no task begin any more. On the executor, or when nobody runs it.
  void close() noexcept;

 private:
  void run();

  std::mutex lock_;  // guards what follows, but for behind_
  boost::asio::any_io_executor executor_;
  std::vector<Task> tasks_;
  bool awake_ = false;
  bool closed_ = false;
  Task behind_;
};

}  // namespace RPC
}  // namespace VORN
