#include "tools/inspect/byte_source.h"

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "tools/inspect/output.h"
#include "tools/inspect/unicode.h"

namespace vorn_inspect {

namespace {

constexpr int FOLLOW_MILLISECONDS = 100;

[[noreturn]] void fail(const std::string& name) {
  throw std::system_error(errno, std::generic_category(), name);
}

}  // namespace

ByteSource::ByteSource(const std::string& path, bool follow, int output_fd)
    : name_(path == "-" ? "standard input" : path), close_(path != "-"), output_fd_(output_fd), follow_(false) {
  fd_ = close_ ? ::open(path.c_str(), O_RDONLY | O_CLOEXEC) : STDIN_FILENO;
  if (fd_ < 0) fail(name_);
  struct stat status;
  if (::fstat(fd_, &status) == 0 && S_ISREG(status.st_mode)) {
    regular_ = true;
    size_ = static_cast<uint64_t>(status.st_size);
    follow_ = follow;
  }
  if (follow) stop_.emplace();
}

ByteSource::~ByteSource() {
  if (successor_ >= 0) ::close(successor_);
  if (close_) ::close(fd_);
}

size_t ByteSource::read(char* to, size_t n) {
  begins_anew_ = false;
  for (;;) {
    if (regular_ && !follow_) return read_now(to, n);
    if (!wait(!regular_, regular_ ? 0 : -1)) return 0;
    const size_t got = read_now(to, n);
    if (got != 0 || !follow_) return got;
    if (successor_ >= 0) {
      ::close(std::exchange(fd_, std::exchange(successor_, -1)));
      begins_anew_ = true;
      return 0;
    }
    if (became_shorter()) return 0;
    // The old file may have grown after read() reached its end.
    if (find_successor()) continue;
    if (!wait(false, FOLLOW_MILLISECONDS)) return 0;
  }
}

size_t ByteSource::read_now(char* to, size_t n) {
  for (;;) {
    const ssize_t got = ::read(fd_, to, n);
    if (got >= 0) return static_cast<size_t>(got);
    if (errno != EINTR && errno != EAGAIN) fail(name_);
  }
}

/// Waits up to `milliseconds` (-1: no timeout), for input too if `for_input`. False: a signal ends the input.
bool ByteSource::wait(bool for_input, int milliseconds) {
  pollfd watched[] = {{output_fd_, 0, 0}, {for_input ? fd_ : -1, POLLIN, 0}};
  const timespec limit{milliseconds / 1000, milliseconds % 1000 * 1000000L};
  for (;;) {
    const int ready = ::ppoll(watched, 2, milliseconds < 0 ? nullptr : &limit, stop_ ? stop_->waiting_mask() : nullptr);
    if (stop_ && stop_->came()) return false;
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) fail(name_);
    if ((watched[0].revents & (POLLERR | POLLHUP)) != 0) throw OutputClosed();
    return true;
  }
}

bool ByteSource::became_shorter() {
  struct stat status;
  if (::fstat(fd_, &status) != 0 || status.st_size >= ::lseek(fd_, 0, SEEK_CUR)) return false;
  ::lseek(fd_, 0, SEEK_SET);
  say("was truncated; reading from its beginning");
  said_ = "";
  return begins_anew_ = true;
}

/// Looks for another file under the name, and opens it.
bool ByteSource::find_successor() {
  if (!close_) return false;
  struct stat mine, named;
  if (::fstat(fd_, &mine) != 0) return false;
  if (::stat(name_.c_str(), &named) != 0) {
    say(errno == ENOENT ? "is gone; waiting for a new file" : std::strerror(errno));
    return false;
  }
  if (mine.st_dev == named.st_dev && mine.st_ino == named.st_ino) {
    said_ = "";
    return false;
  }
  if (S_ISREG(named.st_mode)) {
    // A FIFO may have taken the name meanwhile, and opening one blocks.
    successor_ = ::open(name_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (successor_ < 0) {
      say(std::strerror(errno));
      return false;
    }
    if (::fstat(successor_, &named) == 0 && S_ISREG(named.st_mode)) {
      say("was replaced; reading the new file");
      said_ = "";
      return true;
    }
    ::close(std::exchange(successor_, -1));
  }
  say("is no longer a regular file; waiting for one");
  return false;
}

void ByteSource::say(const char* what) {
  if (std::strcmp(what, said_) == 0) return;
  said_ = what;
  fmt::print(stderr, "vorn-inspect: {}: {}\n", printable(name_), what);
}

}  // namespace vorn_inspect
