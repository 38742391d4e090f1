#include "tools/inspect/sequence_check.h"

namespace vorn_inspect {

void SequenceCheck::add(uint16_t seq, uint64_t offset) {
  const uint16_t step = static_cast<uint16_t>(seq - last_);
  if (any_ && step != 1) {
    if (step == 0) {
      ++repeats_;
    } else if (step < 0x8000) {
      ++gaps_;
      missing_ += step - 1U;
    } else {
      ++returns_;
    }
    if (jumps_.size() < MAX_JUMPS) jumps_.push_back({offset, last_, seq});
  }
  any_ = true;
  last_ = seq;
}

}  // namespace vorn_inspect
