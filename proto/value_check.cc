#include "proto/value_check.h"

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
  uint8_t end_mark() const { return is_hash() ? PTT_HASH_END : PTT_ARRAY_END; }
  bool may_end() const { return !is_hash() || members % 2 == 0; }
};

/// The open containers but the innermost, outermost first. Those of ordinary messages need no allocation.
class OuterContainers {
 public:
  void push(OpenContainer c) {
    if (size_ >= INLINE) more_.emplace_back();
    // push_back() takes a reference, which would force c from registers into memory.
    (size_ < INLINE ? inline_[size_] : more_.back()) = c;
    ++size_;
  }
  OpenContainer pop() {
    --size_;
    if (size_ < INLINE) return inline_[size_];
    const OpenContainer c = more_.back();
    more_.pop_back();
    return c;
  }

 private:
  static constexpr uint64_t INLINE = 64;

  OpenContainer inline_[INLINE];
  std::vector<OpenContainer> more_;
  uint64_t size_ = 0;
};

// Inlined into check_value(), whose cursor then stays in registers, as `inner` does (docs/development/performance.md:
// the checking pass). Integers and strings, which are most of a message, are tested for ahead of the jump table.
[[gnu::always_inline]] inline ValueFault check(WireReader& in, const CheckLimits& limits, ArrayCounts& counts) {
  const uint64_t value_end = std::min(in.limit(), limits.value_end);
  const uint64_t max_open = limits.maxdepth > 0 ? static_cast<uint64_t>(limits.maxdepth) : 0;
  OuterContainers outer;
  OpenContainer inner{HASH, 1};  // stands around the value: no end mark is due
  uint64_t depth = 0;
  do {
    const bool may_end = inner.may_end();
    if (in.pos() >= value_end) {
      if (may_end) return inner.is_hash() ? ValueFault::underrun_hash : ValueFault::underrun_array;
      return depth >= max_open ? ValueFault::max_depth : ValueFault::underrun;
    }
    const uint8_t type = in.peek();
    if (type == inner.end_mark() && may_end) {
      in.skip(1);
      if (!inner.is_hash()) {
        counts.set(inner.slot, static_cast<uint32_t>(std::min<uint64_t>(inner.members, UINT32_MAX)));
      }
      inner = outer.pop();
      --depth;
      continue;
    }

    // The value itself counts one level on top of the containers around it.
    if (depth >= max_open) return ValueFault::max_depth;
    ++inner.members;
    if (type >= PTT_INT) {
      int64_t value;
      if (!in.read_int(value)) return ValueFault::underrun_int;
      continue;
    }
    in.skip(1);
    if (type >= PTT_BINSTR && type <= PTT_UTF8STR) {
      uint32_t length;
      if (!in.read_length(length)) return ValueFault::underrun_length;
      if (length > 0 && in.pos() + (length - 1) >= limits.string_end) return ValueFault::underrun_string;
      in.skip(length);
      continue;
    }
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
      case PTT_HASH_START:
        outer.push(inner);
        inner = {HASH, 0};
        ++depth;
        break;
      case PTT_ARRAY_START:
        outer.push(inner);
        inner = {counts.add(), 0};
        ++depth;
        break;
      default: return ValueFault::unknown_type;
    }
  } while (depth > 0);
  return ValueFault::none;
}

}  // namespace

ValueFault check_value(WireReader& in, const CheckLimits& limits, ArrayCounts& counts) {
  // A copy whose address is not taken can stay in registers.
  WireReader cursor = in;
  const ValueFault fault = check(cursor, limits, counts);
  in = cursor;
  return fault;
}

}  // namespace PROTO
}  // namespace VORN
