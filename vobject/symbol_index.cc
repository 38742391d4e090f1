#include "vobject/symbol_index.h"

#include <memory>

namespace VORN {

void SymbolIndex::reserve(uint32_t id) {
  SymbolName**& row = rows_[row_of(id)];
  if (row == nullptr) row = new SymbolName*[size_t{1} << row_of(id)];

  const Slots* const slots = slots_.load(std::memory_order_relaxed);
  size_t count = slots == nullptr ? FIRST_SLOTS : slots->mask + 1;
  if (slots != nullptr && count / 2 >= id) return;
  if (slots != nullptr) count *= 2;
  std::unique_ptr<Slot[]> at(new Slot[count]());
  const Slots* const larger = new Slots{count - 1, at.get(), slots};
  at.release();
  for (uint32_t i = 1; i < id; ++i) put(*larger, this->at(i));
  slots_.store(larger, std::memory_order_release);
}

void SymbolIndex::put(const Slots& slots, const SymbolName* name) noexcept {
  for (size_t i = 0; i < PROBES; ++i) {
    Slot& slot = slots.at[(name->hash + i) & slots.mask];
    if (slot.load(std::memory_order_relaxed) != nullptr) continue;
    slot.store(name, std::memory_order_release);
    return;
  }
}

void SymbolIndex::add(SymbolName* name) noexcept {
  const int row = row_of(name->id);
  rows_[row][name->id - (uint32_t{1} << row)] = name;
  put(*slots_.load(std::memory_order_relaxed), name);
}

}  // namespace VORN
