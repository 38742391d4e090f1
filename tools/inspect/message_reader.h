/// The messages of one payload.
#pragma once

#include <cstdint>
#include <string>

#include "proto/value_wire.h"
#include "tools/inspect/stream_window.h"

namespace vorn_inspect {

/// A value that the library can read, by its place in the window.
struct EncodedValue {
  StreamWindow& window;
  uint64_t offset;
  uint64_t size;
};

/// The library's text for a hash key that is not a string.
extern const char KEY_IS_NO_STRING[];

/// Finds the messages that proto_extract_messages() finds, one at a time and without building them: a value with many
/// small members takes more than a hundred times its encoded size.
class MessageReader {
 public:
  /// Reads the messages in [offset, offset + size) of the window, and moves the window's selection.
  MessageReader(StreamWindow& window, uint64_t offset, uint64_t size)
      : window_(window), end_(offset + size), start_(offset), offset_(offset) {}

  /// Goes to the next message. False: there is none, or the library cannot read it; then fault() says why.
  /// Symbols count as strings; the depth limit is 64. Throws std::bad_alloc.
  bool next();

  /// The message that next() reached.
  EncodedValue message() const { return {window_, start_, offset_ - start_}; }

  /// The library's text for the message that cannot be read; empty: none has failed.
  const std::string& fault() const { return fault_; }

  /// The offset in the stream after the last message, or where the fault was found.
  uint64_t offset() const { return offset_; }

 private:
  void ask_the_library();

  StreamWindow& window_;
  uint64_t end_;
  uint64_t start_;
  uint64_t offset_;
  std::string fault_;
};

/// Skips a value. False: a hash in it has a key that is not a string; the cursor is then after that key.
/// REQUIRES: check_value() has found no fault in it, at DEFAULT_MAX_DEPTH.
bool skip_value(VORN::PROTO::WireReader& in);

/// Walks the messages in [offset, offset + size) of the window without building them, and calls `at_start` with
/// the offset of each. Returns whether all are readable; a hash key that is not a string counts as readable.
/// Sets `looked_at` to the number of bytes read. Throws std::bad_alloc.
template <typename AtStart>
bool walk_messages(StreamWindow& window, uint64_t offset, uint64_t size, uint64_t& looked_at, AtStart at_start) {
  using namespace VORN::PROTO;
  window.select(offset, size);
  const uint64_t end = window.payload_end();
  WireReader in(window);
  ValueFault fault = ValueFault::none;
  while (fault == ValueFault::none && in.pos() < end) {
    at_start(window.offset_of(in.pos()));
    ArrayCounts counts;
    fault = check_value(in, {DEFAULT_MAX_DEPTH, end, end}, counts);
  }
  looked_at = window.offset_of(in.pos()) - offset;
  return fault == ValueFault::none;
}

}  // namespace vorn_inspect
