/// Reads a stream of values without frames, one after the other.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/inspect/message_reader.h"
#include "tools/inspect/stream_window.h"

namespace vorn_inspect {

struct Value {
  uint64_t offset;
  std::string_view bytes;
  StreamWindow& window;

  EncodedValue encoded() const { return {window, offset, bytes.size()}; }
};

/// A value that cannot be read.
struct FailedValue {
  uint64_t offset;
  uint64_t fault_offset;  ///< where reading stopped
  const char* reason;     ///< the library's text, or VALUE_TOO_LONG
};

extern const char VALUE_TOO_LONG[];

/// Receives what was found. Arguments are valid during the call only.
class ValueSink {
 public:
  virtual ~ValueSink() = default;
  virtual void on_value(const Value& value) = 0;
  virtual void on_failed_value(const FailedValue& failed) = 0;
};

/// Values have no start marker: after a value whose end is unknown, nothing more is read. A complete value that
/// merely cannot be built (a hash key that is not a string) does not stop the reading. A value, and the bytes
/// buffered until it is complete, are bounded by max_length.
class ValueScanner {
 public:
  /// The sink must outlive the scanner.
  ValueScanner(ValueSink& sink, uint32_t max_length) : sink_(sink), max_length_(max_length) {}

  /// Takes the next bytes and reports the values that are complete. Throws std::bad_alloc and what the sink
  /// throws.
  void feed(std::string_view bytes);
  /// Ends the input: an incomplete value is reported as failed.
  void finish();

  /// The offset that reading has reached, or where it stopped for good.
  uint64_t offset() const { return pos_; }

 private:
  void read_values(bool ended);
  bool read_value(bool ended);
  void fail(uint64_t fault_offset, const char* reason);

  ValueSink& sink_;
  const uint32_t max_length_;
  StreamWindow window_;
  uint64_t pos_ = 0;
  uint64_t enough_ = 0;  ///< how many bytes must have arrived before the value at pos_ is tried again
  bool failed_ = false;
};

}  // namespace vorn_inspect
