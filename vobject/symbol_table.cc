#include "vobject/symbol_table.h"

#include <cassert>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>

namespace VORN {

namespace {

/// The ids up to this one were given before this thread last held the lock. What it reads of them needs no other.
thread_local uint32_t ids_met = 0;

/// Makes the table when the library is loaded, unless a static object used it before. If there is no memory for it,
/// the program terminates before main().
// NOLINTNEXTLINE(cert-err58-cpp)
[[maybe_unused]] const SymbolTable& made_at_load = SymbolTable::instance();

}  // namespace

SymbolTable& SymbolTable::instance() {
  static SymbolTable table;
  return table;
}

uint32_t SymbolTable::intern(const string_ref& name) {
  const size_t hash = std::hash<std::string_view>()(name.view());
  const SymbolName* const met = index_.find(name.view(), hash);
  if (met != nullptr && met->id <= ids_met) return met->id;

  const Lock lock(lock_);
  const auto known = symbol_ids_.find(name);
  const uint32_t id = known != symbol_ids_.end() ? known->second : create_symbol(name, hash);
  ids_met = next_id_ - 1;
  return id;
}

/// REQUIRES: the lock is held and the name is new.
uint32_t SymbolTable::create_symbol(const string_ref& name, size_t hash) {
  const uint32_t id = next_id_;
  SymbolIndex::Room room = index_.room_for(id);
  std::unique_ptr<SymbolName> made(new SymbolName{VObjectString(name.data(), name.length()), id, hash});
  VObjectString& text = made->text;
  [[maybe_unused]] const auto [entry, is_new] =
      symbol_ids_.emplace(string_ref::make_static(text.data(), text.size()), id);
  assert(is_new);
  try {
    symbol_names_[id] = &text;
  } catch (...) {
    symbol_ids_.erase(entry);
    throw;
  }
  index_.add(made.release(), std::move(room));
  ++next_id_;
  return id;
}

VObjectString* SymbolTable::find_met(uint32_t id) const {
  return id - 1 < ids_met ? &index_.at(id)->text : nullptr;  // 0 is never given
}

bool SymbolTable::find_name(uint32_t id, VObjectString*& name) {
  name = find_met(id);
  if (name != nullptr) return true;
  const Lock lock(lock_);
  ids_met = next_id_ - 1;
  const auto entry = symbol_names_.find(id);
  if (entry == symbol_names_.end()) return false;
  name = entry->second;
  return true;
}

VObjectString* SymbolTable::name_or_null(uint32_t id) {
  if (VObjectString* const name = find_met(id)) return name;
  const Lock lock(lock_);
  ids_met = next_id_ - 1;
  return name_slot(id);
}

}  // namespace VORN
