#include "proto/value_check.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace VORN {
namespace PROTO {

namespace {

constexpr size_t HASH = SIZE_MAX;

// No end mark may come.
constexpr uint8_t NO_END = 0x7F;

/// A container whose end mark has not come yet.
struct OpenContainer {
  size_t slot;       ///< where an array's count goes; HASH for a hash
  uint32_t members;  ///< of an array, met so far
  uint8_t end;       ///< the end mark that may come now: a hash's only where a key may come

  bool is_hash() const { return slot == HASH; }
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
[[gnu::always_inline]] inline ValueFault check(WireReader& in, const CheckLimits& limits, ArrayCounts& counts,
                                               KeyTypes& keys) {
  const uint64_t value_end = std::min(in.limit(), limits.value_end);
  const uint64_t max_open = limits.maxdepth > 0 ? static_cast<uint64_t>(limits.maxdepth) : 0;
  OuterContainers outer;
  OpenContainer inner{0, 0, NO_END};  // stands around the value
  uint64_t depth = 0;
  do {
    if (in.pos() >= value_end) {
      if (inner.end != NO_END) return inner.is_hash() ? ValueFault::underrun_hash : ValueFault::underrun_array;
      return depth >= max_open ? ValueFault::max_depth : ValueFault::underrun;
    }
    const uint8_t type = in.peek();
    if (type == inner.end && type != NO_END) {
      in.skip(1);
      if (!inner.is_hash()) counts.set(inner.slot, inner.members);
      inner = outer.pop();
      --depth;
      continue;
    }

    // The value itself counts one level on top of the containers around it.
    if (depth >= max_open) return ValueFault::max_depth;
    if (!inner.is_hash()) {
      ++inner.members;
    } else if (inner.end == NO_END) {
      inner.end = PTT_HASH_END;
    } else {
      inner.end = NO_END;
      keys.add(type);
    }
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
        if (in.pos() < value_end && in.peek() == PTT_HASH_END) {
          in.skip(1);
          break;
        }
        outer.push(inner);
        inner = {HASH, 0, PTT_HASH_END};
        ++depth;
        break;
      case PTT_ARRAY_START: {
        const size_t slot = counts.add();
        if (in.pos() < value_end && in.peek() == PTT_ARRAY_END) {
          in.skip(1);
          counts.set(slot, 0);
          break;
        }
        outer.push(inner);
        inner = {slot, 0, PTT_ARRAY_END};
        ++depth;
        break;
      }
      default: return ValueFault::unknown_type;
    }
  } while (depth > 0);
  return ValueFault::none;
}

}  // namespace

ValueFault check_value(WireReader& in, const CheckLimits& limits, ArrayCounts& counts) {
  KeyTypes keys;
  return check_value(in, limits, counts, keys);
}

ValueFault check_value(WireReader& in, const CheckLimits& limits, ArrayCounts& counts, KeyTypes& keys) {
  // Copies whose addresses are not taken can stay in registers.
  WireReader cursor = in;
  KeyTypes types = keys;
  const ValueFault fault = check(cursor, limits, counts, types);
  in = cursor;
  keys = types;
  return fault;
}

}  // namespace PROTO
}  // namespace VORN
