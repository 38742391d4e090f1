#include "tools/inspect/message_reader.h"

#include "proto/vorn_exception.h"
#include "vobject/vobject.h"

namespace vorn_inspect {

using namespace VORN::PROTO;

const char KEY_IS_NO_STRING[] = "VObject::deserialize_hash: only hash keys of type string are supported";

namespace {

bool is_string(uint8_t type) {
  return type == PTT_BINSTR || type == PTT_SYMBOL || type == PTT_UTF8STR;
}

/// The result of the library's checking pass.
ValueFault check_value(WireReader& in, uint64_t end) {
  ArrayCounts counts;
  return check_value(in, {DEFAULT_MAX_DEPTH, end, UINT64_MAX}, counts);
}

}  // namespace

bool MessageReader::next() {
  if (!fault_.empty() || offset_ >= end_) return false;
  start_ = offset_;
  window_.select(start_, end_ - start_);
  WireReader in(window_);
  // The checking pass lets the last string reach past the end of the payload: only the building pass checks that.
  if (check_value(in, window_.payload_end()) != ValueFault::none || in.pos() > window_.payload_end()) {
    ask_the_library();
    return false;
  }
  WireReader keys(window_);
  if (!skip_value(keys)) fault_ = KEY_IS_NO_STRING;
  offset_ = window_.offset_of(keys.pos());
  return fault_.empty();
}

/// A value that the checking pass refuses is refused by the library before it builds anything.
void MessageReader::ask_the_library() {
  try {
    VORN::VObject value;
    VORN::VObject::deserialize(window_, window_.payload_end(), value, true, DEFAULT_MAX_DEPTH);
  } catch (const VORN::VornException& e) {
    fault_ = e.what();
  }
  offset_ = window_.offset_of(window_.pos());
}

bool skip_value(WireReader& in) {
  const uint8_t type = in.peek();
  if (type >= PTT_INT) {
    int64_t value;
    return in.read_int(value);
  }
  in.skip(1);
  switch (type) {
    case PTT_FLOAT: in.skip(sizeof(float)); break;
    case PTT_DOUBLE: in.skip(sizeof(double)); break;
    case PTT_BINSTR:
    case PTT_SYMBOL:
    case PTT_UTF8STR: {
      uint32_t length;
      in.read_length(length);
      in.skip(length);
      break;
    }
    case PTT_HASH_START:
      while (in.peek() != PTT_HASH_END) {
        const bool good_key = is_string(in.peek());
        if (!skip_value(in) || !good_key || !skip_value(in)) return false;
      }
      in.skip(1);
      break;
    case PTT_ARRAY_START:
      while (in.peek() != PTT_ARRAY_END) {
        if (!skip_value(in)) return false;
      }
      in.skip(1);
      break;
    default: break;
  }
  return true;
}

}  // namespace vorn_inspect
