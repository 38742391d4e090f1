/// Values, and the output of the program's writers for them, without the program.
#pragma once

#include <string>
#include <string_view>

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tools/inspect/message_reader.h"
#include "tools/inspect/output.h"

namespace vorn_test {

/// Collects what is written to an Output.
class Written {
 public:
  ~Written() { ::close(fd_); }
  vorn_inspect::Output& output() { return output_; }

  std::string text() {
    output_.flush();
    std::string all(static_cast<size_t>(::lseek(fd_, 0, SEEK_END)), '\0');
    EXPECT_EQ(static_cast<ssize_t>(all.size()), ::pread(fd_, all.data(), all.size(), 0));
    return all;
  }

 private:
  int fd_ = ::memfd_create("written", MFD_CLOEXEC);
  vorn_inspect::Output output_{fd_};
};

/// The output of a writer of this class for the first value in these bytes. Other bytes precede the value.
template <typename Writer>
std::string written(const std::string& bytes) {
  vorn_inspect::StreamWindow window;
  window.append("before");
  window.append(bytes);
  vorn_inspect::MessageReader messages(window, 6, bytes.size());
  EXPECT_TRUE(messages.next()) << messages.fault();
  Written all;
  Writer(all.output()).write(messages.message());
  return all.text();
}

}  // namespace vorn_test
