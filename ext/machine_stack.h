/// How much of the machine stack is left, for recursion whose depth a peer chooses. Where the end of the stack is hit,
/// Ruby 2.2 raises SystemStackError once and is killed the second time, 2.7 ends with "machine stack overflow in
/// critical region", and 3.1 with "system stack overflow during GC".
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "ext/ruby_compat.h"

namespace VORN {
namespace EXT {

/// The stack that its maker runs on: a thread's or a fiber's.
class MachineStack {
 public:
  // Takes 3 MB of stack. Whatever `maxdepth` allows, a peer shall not have all that a main thread's 8 MB leave.
  static constexpr int32_t MAX_DEPTH = 10000;

  /// Enters a frame of a recursion that is `depth` levels deep: has_room(), or SystemStackError "stack level too deep".
  /// So it is beyond MAX_DEPTH, however large the stack.
  void enter(int32_t depth, void* here) {
    if (depth > MAX_DEPTH || !has_room(here)) raise_too_deep();
  }

  /// Whether there is room below `here`, the address of the caller's local, for so many bytes and for what the
  /// interpreter does at their lowest, a collection included.
  bool has_room(const void* here, size_t bytes = 0) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(here);
    return (address >= floor_ && address - floor_ >= bytes) || find_room(address, bytes);
  }

  /// has_room(), or SystemStackError.
  void require_room(const void* here, size_t bytes) {
    if (!has_room(here, bytes)) raise_too_deep();
  }

 private:
  [[noreturn]] static void raise_too_deep();
  bool find_room(uintptr_t here, size_t bytes);

  uintptr_t floor_ = UINTPTR_MAX;  ///< frames down to here are known to have room
};

/// What the interpreter will take of the stack to hash the containers that are being made, and to compare them, should
/// they be keys.
///
///   const auto outer = hashing.begin();      // before the members
///   hashing.end(outer, HashingRoom::ARRAY);  // behind them
class HashingRoom {
 public:
  static constexpr size_t ARRAY = 1152;  ///< 2.2 takes 974 bytes for `hash` and 1050 for `eql?`
  static constexpr size_t HASH = 1920;   ///< 1600 and 1792

  size_t begin() {
    const size_t outer = bytes_;
    bytes_ = 0;
    return outer;
  }

  void end(size_t outer, size_t own) {
    latest_ = bytes_ + own;
    bytes_ = std::max(outer, latest_);
  }

  /// The room for the container that ended last.
  size_t latest() const { return latest_; }

 private:
  size_t bytes_ = 0;
  size_t latest_ = 0;
};

/// Called once by Init.
void init_machine_stack();

}  // namespace EXT
}  // namespace VORN
