/// The names of the symbol table for threads that do not hold its lock. Only the lock's holder adds to it. What has
/// been added never changes, moves or ends, so it can be read at any time.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "vobject/vobject_string.h"

namespace VORN {

/// A name and what it is found by.
struct SymbolName {
  VObjectString text;  ///< stays where it is
  uint32_t id;         ///< from 1 on
  size_t hash;         ///< of the text, as find() is given it
};

/// All zero before its first use, and without a destructor: the process may end in any order.
class SymbolIndex {
 public:
  class Room;

  /// What add() needs for the name of this id. Throws std::bad_alloc. REQUIRES: the ids before it have been added.
  Room room_for(uint32_t id) const;

  /// Takes the name for good. REQUIRES: the room is for its id, and nothing was added since it was made.
  void add(SymbolName* name, Room room) noexcept;

  /// The name of these bytes. Null: it is not known, or may be too far from where its hash says.
  const SymbolName* find(std::string_view bytes, size_t hash) const noexcept {
    const Slots* const slots = slots_.load(std::memory_order_acquire);
    for (size_t i = 0; slots != nullptr && i < PROBES; ++i) {
      const SymbolName* const name = slots->at[(hash + i) & slots->mask].load(std::memory_order_acquire);
      if (name == nullptr) return nullptr;
      if (name->hash == hash && name->text == bytes) return name;
    }
    return nullptr;
  }

  /// The name of the id. REQUIRES: it was added, and this thread or one that it has since waited for did that.
  SymbolName* at(uint32_t id) const noexcept {
    const int row = row_of(id);
    return rows_[row][id - (uint32_t{1} << row)];
  }

 private:
  // A peer can choose names whose hashes are the same. They shall not make each other slow to find.
  static constexpr size_t PROBES = 16;
  static constexpr size_t FIRST_SLOTS = 64;

  using Slot = std::atomic<const SymbolName*>;

  /// Twice as many as names, or more.
  struct Slots {
    size_t mask;
    std::unique_ptr<Slot[]> at;
    const Slots* previous;  ///< others may be reading them still
  };

  static int row_of(uint32_t id) { return 31 - __builtin_clz(id); }
  static void put(const Slots& slots, const SymbolName* name) noexcept;

  std::atomic<const Slots*> slots_{nullptr};
  SymbolName** rows_[32] = {};  ///< each twice as long as the one before it, so that none has to move
};

/// Freed if no name takes it.
class SymbolIndex::Room {
  friend class SymbolIndex;
  std::unique_ptr<SymbolName*[]> row_;
  std::unique_ptr<Slots> slots_;
};

}  // namespace VORN
