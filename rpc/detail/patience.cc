#include "rpc/detail/patience.h"

#include <sstream>
#include <string>

namespace VORN {
namespace RPC {

namespace {

std::string seconds(std::chrono::milliseconds time) {
  std::ostringstream text;
  text << std::chrono::duration<double>(time).count() << " s";
  return text.str();
}

}  // namespace

void Patience::heard(bool whole, bool between, Clock::time_point now) {
  if (between) {
    in_frame_ = false;
    deadline_ = now + idle_time_;
  } else if (whole || !in_frame_) {
    in_frame_ = true;
    deadline_ = now + frame_time_;
  }
}

void Patience::check(bool busy, Clock::time_point now) {
  if (now < deadline_) return;
  if (in_frame_) throw Silent("the rest of a frame did not come in " + seconds(frame_time_));
  if (!busy) throw Silent("silent for " + seconds(idle_time_));
  deadline_ = now + idle_time_;
}

}  // namespace RPC
}  // namespace VORN
