#include "tools/inspect/stop_signal.h"

#include <initializer_list>

namespace vorn_inspect {

namespace {

volatile std::sig_atomic_t stopped = 0;

extern "C" void note_stop(int) {
  stopped = 1;
}

}  // namespace

StopSignal::StopSignal() {
  struct sigaction action {};
  action.sa_handler = note_stop;
  sigemptyset(&action.sa_mask);
  sigset_t held;
  sigemptyset(&held);
  for (const int signal : {SIGINT, SIGTERM}) {
    sigaction(signal, &action, nullptr);
    sigaddset(&held, signal);
  }
  sigprocmask(SIG_BLOCK, &held, &waiting_mask_);
  sigdelset(&waiting_mask_, SIGINT);
  sigdelset(&waiting_mask_, SIGTERM);
}

bool StopSignal::came() const {
  return stopped != 0;
}

}  // namespace vorn_inspect
