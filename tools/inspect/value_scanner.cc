#include "tools/inspect/value_scanner.h"

#include "proto/value_wire.h"

namespace vorn_inspect {

using namespace VORN::PROTO;

const char VALUE_TOO_LONG[] = "value longer than the limit";

namespace {

/// An incomplete value is walked again with each feed() up to this size, and then whenever it has doubled.
constexpr uint64_t EAGER = 4096;

bool ran_out(ValueFault fault) {
  return fault != ValueFault::none && fault != ValueFault::max_depth && fault != ValueFault::unknown_type;
}

}  // namespace

void ValueScanner::feed(std::string_view bytes) {
  if (failed_) return;
  window_.append(bytes);
  read_values(false);
  window_.drop_before(pos_);
}

void ValueScanner::finish() {
  read_values(true);
}

void ValueScanner::read_values(bool ended) {
  while (!failed_ && pos_ < window_.end() && (ended || window_.end() - pos_ >= enough_)) {
    if (!read_value(ended)) return;
  }
}

/// False: more bytes are needed.
bool ValueScanner::read_value(bool ended) {
  const uint64_t held = window_.end() - pos_;
  window_.select(pos_, held);
  const uint64_t start = window_.pos();
  WireReader in(window_);
  ArrayCounts counts;
  const ValueFault fault = check_value(in, {DEFAULT_MAX_DEPTH, window_.payload_end(), window_.payload_end()}, counts);
  const uint64_t size = in.pos() - start;
  if (size > max_length_ || (ran_out(fault) && held > max_length_)) {
    fail(pos_, VALUE_TOO_LONG);
    return true;
  }
  if (ran_out(fault) && !ended) {
    enough_ = held < EAGER ? 0 : 2 * held;
    return false;
  }
  enough_ = 0;
  MessageReader reader(window_, pos_, held);
  if (reader.next()) {
    sink_.on_value({pos_, window_.view(pos_, size), window_});
    pos_ += size;
  } else {
    fail(reader.offset(), reader.fault().c_str());
    if (fault == ValueFault::none) {
      failed_ = false;
      pos_ += size;
    }
  }
  return true;
}

void ValueScanner::fail(uint64_t fault_offset, const char* reason) {
  failed_ = true;
  sink_.on_failed_value({pos_, fault_offset, reason});
}

}  // namespace vorn_inspect
