#include "vobject/symbol_table.h"

#include <cassert>
#include <memory>

namespace VORN {

namespace {

/// The string of a name, and the name made before it.
struct Name {
  VObjectString text;
  Name* previous;
};

/// Names are never freed. The chain keeps them reachable for leak checkers.
Name* newest_name = nullptr;

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
  const Lock lock(lock_);
  const auto known = symbol_ids_.find(name);
  return known != symbol_ids_.end() ? known->second : create_symbol(name);
}

/// REQUIRES: the lock is held and the name is new.
uint32_t SymbolTable::create_symbol(const string_ref& name) {
  const uint32_t id = next_id_;
  std::unique_ptr<Name> made(new Name{VObjectString(name.data(), name.length()), newest_name});
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
  newest_name = made.release();
  ++next_id_;
  return id;
}

bool SymbolTable::find_name(uint32_t id, VObjectString*& name) {
  const Lock lock(lock_);
  const auto entry = symbol_names_.find(id);
  if (entry == symbol_names_.end()) return false;
  name = entry->second;
  return true;
}

VObjectString* SymbolTable::name_or_null(uint32_t id) {
  const Lock lock(lock_);
  return name_slot(id);
}

}  // namespace VORN
