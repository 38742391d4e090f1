/// How long a server waits for what a client sends next. There is a limit for silence and a shorter one for a frame
/// that has begun, measured from its beginning: else a byte now and then would keep a connection, and its frame, for
/// ever.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

#include "examples/native/sockets.h"

namespace rpc {

/// The client sends nothing, or not the rest of what it began.
class Silent : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Patience {
 public:
  static constexpr std::chrono::seconds FRAME_TIME{5};

  explicit Patience(std::chrono::milliseconds idle_time) : idle_time_(idle_time), deadline_(Clock::now() + idle_time) {}

  /// When the next bytes have to be there.
  Clock::time_point deadline() const { return deadline_; }

  /// A frame has come whole.
  void whole_frame() { in_frame_ = false; }

  /// All that arrived has been looked at.
  void heard(bool between_frames) {
    if (between_frames) {
      in_frame_ = false;
      deadline_ = Clock::now() + idle_time_;
    } else if (!in_frame_) {
      in_frame_ = true;
      deadline_ = Clock::now() + FRAME_TIME;
    }
  }

  /// The deadline has passed. Only who waits for an answer may be silent for longer; otherwise throws Silent.
  void over(bool waits_for_answer) {
    if (in_frame_) throw Silent("the rest of a frame did not come in " + std::to_string(FRAME_TIME.count()) + " s");
    if (!waits_for_answer) throw Silent("silent for " + std::to_string(idle_time_.count()) + " ms");
    deadline_ = Clock::now() + idle_time_;
  }

 private:
  const std::chrono::milliseconds idle_time_;
  bool in_frame_ = false;
  Clock::time_point deadline_;
};

}  // namespace rpc
