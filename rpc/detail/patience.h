/// The timeouts of a server that waits for a client. A client may be silent for one time, and a frame that has begun
/// must be complete within a shorter one, measured from its beginning: otherwise a byte now and then would hold a
/// connection and an incomplete frame for ever.
#pragma once

#include <chrono>

#include "rpc/detail/clock.h"
#include "rpc/errors.h"

namespace VORN {
namespace RPC {

/// The client sends nothing, or does not finish what it began.
class Silent : public Error {
 public:
  using Error::Error;
};

class Patience {
 public:
  Patience(std::chrono::milliseconds idle_time, std::chrono::milliseconds frame_time, Clock::time_point now)
      : idle_time_(idle_time), frame_time_(frame_time), deadline_(now + idle_time) {}

  /// All bytes that arrived have been processed. whole: whether they completed a frame. between: whether none is begun.
  void heard(bool whole, bool between, Clock::time_point now);

  /// Throws Silent when the deadline has passed, unless the client waits for an answer and no frame is incomplete.
  void check(bool busy, Clock::time_point now);

 private:
  std::chrono::milliseconds idle_time_;
  std::chrono::milliseconds frame_time_;
  bool in_frame_ = false;
  Clock::time_point deadline_;
};

}  // namespace RPC
}  // namespace VORN
