#include "vobject/symbol_index.h"

#include <utility>

namespace VORN {

SymbolIndex::Room SymbolIndex::room_for(uint32_t id) const {
  Room room;
  const int row = row_of(id);
  if (rows_[row] == nullptr) room.row_.reset(new SymbolName*[size_t{1} << row]);

  const Slots* const slots = slots_.load(std::memory_order_relaxed);
  if (slots != nullptr && (slots->mask + 1) / 2 >= id) return room;
  const size_t count = slots == nullptr ? FIRST_SLOTS : (slots->mask + 1) * 2;
  std::unique_ptr<Slot[]> at(new Slot[count]());
  room.slots_.reset(new Slots{count - 1, std::move(at), slots});
  for (uint32_t i = 1; i < id; ++i) put(*room.slots_, this->at(i));
  return room;
}

void SymbolIndex::put(const Slots& slots, const SymbolName* name) noexcept {
  for (size_t i = 0; i < PROBES; ++i) {
    Slot& slot = slots.at[(name->hash + i) & slots.mask];
    if (slot.load(std::memory_order_relaxed) != nullptr) continue;
    slot.store(name, std::memory_order_release);
    return;
  }
}

void SymbolIndex::add(SymbolName* name, Room room) noexcept {
  const int row = row_of(name->id);
  if (room.row_ != nullptr) rows_[row] = room.row_.release();
  rows_[row][name->id - (uint32_t{1} << row)] = name;
  if (room.slots_ != nullptr) slots_.store(room.slots_.release(), std::memory_order_release);
  put(*slots_.load(std::memory_order_relaxed), name);
}

}  // namespace VORN
