/// Lets SIGINT and SIGTERM end the input instead of the program, so that what was found is still reported.
#pragma once

#include <csignal>

namespace vorn_inspect {

class StopSignal {
 public:
  /// From now on both signals are blocked, except while waiting with waiting_mask().
  StopSignal();

  /// Whether one of the signals has arrived.
  bool came() const;

  /// The signal mask for ppoll(): no signal is lost between came() and the wait.
  const sigset_t* waiting_mask() const { return &waiting_mask_; }

 private:
  sigset_t waiting_mask_;
};

}  // namespace vorn_inspect
