/// The timeouts of a server that waits for a client. A client may be silent for one time, and a frame that has begun
/// must be complete within a shorter one, measured from its beginning: otherwise a byte now and then would hold a
/// connection and an incomplete frame for ever.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

#include "examples/native/sockets.h"

namespace rpc {

/// The client sends nothing, or does not finish what it began.
class Silent : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Patience {
 public:
  static constexpr std::chrono::seconds FRAME_TIME{5};

  explicit Patience(std::chrono::milliseconds idle_time) : idle_time_(idle_time), deadline_(Clock::now() + idle_time) {}

  /// The time by which the next bytes must arrive.
  Clock::time_point deadline() const { return deadline_; }

  /// A frame is complete.
  void whole_frame() { in_frame_ = false; }

  /// All bytes that arrived have been processed.
  void heard(bool between_frames) {
    if (between_frames) {
      in_frame_ = false;
      deadline_ = Clock::now() + idle_time_;
    } else if (!in_frame_) {
      in_frame_ = true;
      deadline_ = Clock::now() + FRAME_TIME;
    }
  }

  /// The deadline has passed. Throws Silent, unless the client waits for an answer and no frame is incomplete.
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
