/// The base of the three kinds of output.
#pragma once

#include <cstdint>

#include "tools/inspect/stream_scanner.h"
#include "tools/inspect/value_scanner.h"

namespace vorn_inspect {

class Report : public StreamSink, public ValueSink {
 public:
  /// The input ended after `input_size` bytes.
  virtual void on_end(uint64_t input_size) = 0;

  /// Whether bytes were skipped, frames overlapped, or a message or value could not be read.
  bool damage() const { return damage_; }

 protected:
  void note_damage() { damage_ = true; }

 private:
  bool damage_ = false;
};

}  // namespace vorn_inspect
