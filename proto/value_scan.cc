#include "proto/value_scan.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace VORN {
namespace PROTO {

namespace {

constexpr size_t HASH = SIZE_MAX;

/// A container whose end mark has not come yet.
struct OpenContainer {
  size_t slot;       ///< where an array's count goes; HASH for a hash
  uint64_t members;  ///< values met so far; in a hash a key is due when this is even

  bool is_hash() const { return slot == HASH; }
  bool may_end() const { return !is_hash() || members % 2 == 0; }
  uint8_t end_mark() const { return is_hash() ? PTT_HASH_END : PTT_ARRAY_END; }
};

/// The open containers, innermost last. Those of ordinary messages need no allocation.
class OpenContainers {
 public:
  bool empty() const { return depth_ == 0; }
  uint64_t depth() const { return depth_; }
  OpenContainer& top() { return depth_ <= INLINE ? inline_[depth_ - 1] : more_.back(); }
  void push(OpenContainer c) {
    if (depth_ < INLINE) {
      inline_[depth_] = c;
    } else {
      more_.push_back(c);
    }
    ++depth_;
  }
  void pop() {
    if (depth_ > INLINE) more_.pop_back();
    --depth_;
  }

 private:
  static constexpr uint64_t INLINE = 64;

  OpenContainer inline_[INLINE];
  std::vector<OpenContainer> more_;
  uint64_t depth_ = 0;
};

ValueFault scan(WireReader& in, const ScanRules& rules, ArrayCounts& counts) {
  const uint64_t value_end = std::min(in.limit(), rules.value_end);
  const uint64_t max_open = rules.maxdepth > 0 ? static_cast<uint64_t>(rules.maxdepth) : 0;
  OpenContainers open;
  do {
    if (!open.empty()) {
      OpenContainer& container = open.top();
      if (container.may_end()) {
        if (in.pos() >= value_end) {
          return container.is_hash() ? ValueFault::underrun_hash : ValueFault::underrun_array;
        }
        if (in.peek() == container.end_mark()) {
          in.skip(1);
          if (!container.is_hash()) {
            counts.set(container.slot, static_cast<uint32_t>(std::min<uint64_t>(container.members, UINT32_MAX)));
          }
          open.pop();
          continue;
        }
      }
      ++container.members;
    }

    // The value itself counts one level on top of the containers around it.
    if (open.depth() >= max_open) return ValueFault::max_depth;
    if (in.pos() >= value_end) return ValueFault::underrun;
    const uint8_t type = in.peek();
    if (type >= PTT_INT) {
      int64_t value;
      if (!in.read_int(value)) return ValueFault::underrun_int;
      continue;
    }
    in.skip(1);
    switch (type) {
      case PTT_NIL:
      case PTT_FALSE:
      case PTT_TRUE: break;
      case PTT_FLOAT: {
        float value;
        if (!in.read_float(value)) return ValueFault::underrun_float;
        break;
      }
      case PTT_DOUBLE: {
        double value;
        if (!in.read_double(value)) return ValueFault::underrun_double;
        break;
      }
      case PTT_BINSTR:
      case PTT_SYMBOL:
      case PTT_UTF8STR: {
        uint32_t length;
        if (!in.read_length(length)) return ValueFault::underrun_length;
        if (length > 0 && in.pos() + (length - 1) >= rules.string_end) return ValueFault::underrun_string;
        in.skip(length);
        break;
      }
      case PTT_HASH_START: open.push({HASH, 0}); break;
      case PTT_ARRAY_START: open.push({counts.add(), 0}); break;
      default: return ValueFault::unknown_type;
    }
  } while (!open.empty());
  return ValueFault::none;
}

}  // namespace

ValueFault scan_value(WireReader& in, const ScanRules& rules, ArrayCounts& counts) {
  // A cursor of its own keeps the position in a register; the caller's is given back in one place.
  WireReader cursor = in;
  const ValueFault fault = scan(cursor, rules, counts);
  in = cursor;
  return fault;
}

}  // namespace PROTO
}  // namespace VORN
