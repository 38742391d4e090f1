/// Reads a stream of values that stand one behind the other, without frames.
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

/// All that is passed is valid during the call only.
class ValueSink {
 public:
  virtual ~ValueSink() = default;
  virtual void on_value(const Value& value) = 0;
  virtual void on_failed_value(const FailedValue& failed) = 0;
};

/// Values have no start marker: behind one whose end cannot be told, nothing is read any more. Behind one
/// that is whole, and only cannot be built (a hash key that is no string), reading goes on. The values of one
/// stream, and what one of them may need to arrive, are bounded by max_length.
class ValueScanner {
 public:
  /// The sink must outlive the scanner.
  ValueScanner(ValueSink& sink, uint32_t max_length) : sink_(sink), max_length_(max_length) {}

  /// Takes the next bytes and reports the values that are complete. Throws std::bad_alloc and what the sink
  /// throws.
  void feed(std::string_view bytes);
  /// The input has ended: what is left fails.
  void finish();

  /// Where reading stopped for good, or stands.
  uint64_t offset() const { return pos_; }

 private:
  void read_values(bool ended);
  bool read_value(bool ended);
  void fail(uint64_t fault_offset, const char* reason);

  ValueSink& sink_;
  const uint32_t max_length_;
  StreamWindow window_;
  uint64_t pos_ = 0;
  uint64_t enough_ = 0;  ///< bytes that must be there before the value at pos_ is tried again
  bool failed_ = false;
};

}  // namespace vorn_inspect
