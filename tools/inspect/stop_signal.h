/// Lets SIGINT and SIGTERM end the input in place of the program, so that what was found is still reported.
#pragma once

#include <csignal>

namespace vorn_inspect {

class StopSignal {
 public:
  /// From now on the two signals are held back, except while waiting with waiting_mask().
  StopSignal();

  /// Whether one of them has come.
  bool came() const;

  /// The signal mask to wait with (see ppoll), so that none is missed between came() and the waiting.
  const sigset_t* waiting_mask() const { return &waiting_mask_; }

 private:
  sigset_t waiting_mask_;
};

}  // namespace vorn_inspect
