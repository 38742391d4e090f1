#include "tools/inspect/output.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>

#include <poll.h>
#include <unistd.h>

namespace vorn_inspect {

void Output::flush() {
  std::string_view rest = buffer_;
  while (!rest.empty()) {
    const ssize_t n = ::write(fd_, rest.data(), wait_for_room(rest.size()));
    if (n >= 0) {
      rest.remove_prefix(static_cast<size_t>(n));
    } else if (errno == EPIPE) {
      throw OutputClosed();
    } else if (errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "standard output");
    }
  }
  buffer_.clear();
}

/// Waits for the output and returns how much can be written without blocking. Signals are blocked while the program
/// works, so a blocking write could not be interrupted.
size_t Output::wait_for_room(size_t wanted) const {
  if (stop_ == nullptr) return wanted;
  pollfd watched{fd_, POLLOUT, 0};
  while (::ppoll(&watched, 1, nullptr, stop_->waiting_mask()) < 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "standard output");
    if (stop_->came()) throw OutputClosed();
  }
  return std::min<size_t>(wanted, PIPE_BUF);
}

}  // namespace vorn_inspect
