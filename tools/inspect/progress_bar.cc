#include "tools/inspect/progress_bar.h"

#include <algorithm>
#include <string>

#include <fmt/format.h>

namespace vorn_inspect {

namespace {

constexpr auto INTERVAL = std::chrono::milliseconds(200);
constexpr uint64_t WIDTH = 40;
constexpr double MIB = 1024 * 1024;

}  // namespace

ProgressBar::~ProgressBar() {
  if (drawn_) std::fputs("\r\x1b[K", stderr);
}

void ProgressBar::update(uint64_t done) {
  const auto now = std::chrono::steady_clock::now();
  if (now - last_ < INTERVAL) return;
  last_ = now;
  drawn_ = true;
  const double share = std::min(1.0, static_cast<double>(done) / static_cast<double>(size_));
  const std::string bar(static_cast<size_t>(share * WIDTH), '#');
  fmt::print(stderr, "\r[{:<{}}] {:3.0f} %  {:.0f} of {:.0f} MiB", bar, WIDTH, 100 * share,
             static_cast<double>(done) / MIB, static_cast<double>(size_) / MIB);
}

}  // namespace vorn_inspect
