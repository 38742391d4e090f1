#include "tools/inspect/output.h"

#include <cerrno>
#include <system_error>

#include <unistd.h>

namespace vorn_inspect {

void Output::flush() {
  std::string_view rest = buffer_;
  while (!rest.empty()) {
    const ssize_t n = ::write(fd_, rest.data(), rest.size());
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

}  // namespace vorn_inspect
