/// The messages of one payload.
#pragma once

#include <cstdint>
#include <string>

#include "proto/value_wire.h"
#include "tools/inspect/stream_window.h"
#include "vobject/vobject.h"

namespace vorn_inspect {

/// The deepest nesting that the library reads in a frame.
constexpr int32_t MAX_DEPTH = 64;

/// Reads messages one at a time: what proto_extract_messages() finds, without holding more than one of them.
class MessageReader {
 public:
  /// Selects [offset, offset + size) of the window, which must not be used otherwise while messages are read.
  MessageReader(StreamWindow& window, uint64_t offset, uint64_t size);

  /// Reads the next message. False: there is none, or it cannot be read; then fault() says why. Symbols come
  /// as strings; at most 64 levels. Throws std::bad_alloc.
  bool next(VORN::VObject& message);

  /// The library's text for the message that cannot be read; empty: none has failed.
  const std::string& fault() const { return fault_; }

  /// Where reading stands in the stream: behind the last message, or where the fault was found.
  uint64_t offset() const { return window_.offset_of(window_.pos()); }

 private:
  StreamWindow& window_;
  std::string fault_;
};

/// Walks the messages in [offset, offset + size) of the window without building them, calling `at_start` with
/// the offset of each. Returns whether they are readable to the end; a hash key that is no string passes.
/// Sets `looked_at` to the count of bytes that this took. Throws std::bad_alloc.
template <typename AtStart>
bool walk_messages(StreamWindow& window, uint64_t offset, uint64_t size, uint64_t& looked_at,
                   AtStart at_start) {
  using namespace VORN::PROTO;
  window.select(offset, size);
  const uint64_t end = window.payload_end();
  WireReader in(window);
  ValueFault fault = ValueFault::none;
  while (fault == ValueFault::none && in.pos() < end) {
    at_start(window.offset_of(in.pos()));
    ArrayCounts counts;
    fault = scan_value(in, {MAX_DEPTH, end, end}, counts);
  }
  looked_at = window.offset_of(in.pos()) - offset;
  return fault == ValueFault::none;
}

}  // namespace vorn_inspect
