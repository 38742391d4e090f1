/// The input: a file or standard input, read once from front to back, possibly while it still grows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/inspect/stop_signal.h"

namespace vorn_inspect {

class ByteSource {
 public:
  /// `path`: "-" is standard input. `follow`: at the end of a regular file, wait for more until SIGINT or SIGTERM,
  /// and report on standard error when the file under this name shrinks or is replaced. `output_fd`: watched while
  /// waiting for input, so that the program ends when its reader leaves. Throws std::system_error.
  ByteSource(const std::string& path, bool follow, int output_fd);
  ~ByteSource();
  ByteSource(const ByteSource&) = delete;
  ByteSource& operator=(const ByteSource&) = delete;

  /// Waits for input and reads up to n bytes of it. 0: the end of the input, or begins_anew(). Throws
  /// std::system_error, and OutputClosed when the reader of the output has left.
  size_t read(char* to, size_t n);

  /// Whether read() returned 0 because a followed file was truncated or replaced. The next read() starts at the
  /// beginning of the file that has the name now.
  bool begins_anew() const { return begins_anew_; }

  /// The signals that end a followed input; null when not following.
  const StopSignal* stop() const { return stop_ ? &*stop_ : nullptr; }

  /// The input's length, when it is known and will not change.
  std::optional<uint64_t> size() const { return follow_ ? std::nullopt : size_; }

 private:
  size_t read_now(char* to, size_t n);
  bool wait(bool for_input, int milliseconds);
  bool became_shorter();
  bool find_successor();
  void say(const char* what);

  std::string name_;
  int fd_;
  bool close_;
  int output_fd_;
  bool regular_ = false;
  bool follow_;            ///< a regular file is being followed
  int successor_ = -1;     ///< the file that has the name now; read after the old one
  const char* said_ = "";  ///< the last notice about the file, so that none is repeated
  bool begins_anew_ = false;
  std::optional<uint64_t> size_;
  std::optional<StopSignal> stop_;
};

}  // namespace vorn_inspect
