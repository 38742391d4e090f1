/// The registry of symbol names: one for the process. A name that is known keeps its id; ids count from 1.
/// Names are never removed, and their strings are deliberately never freed, so that a name stays valid to the
/// very end of the process, whoever still holds it.
///
/// VObject::intern() and VObject::sym_lookup() are the everyday way in. This class adds the lock, for
/// callers that need several steps under one.
///
/// The table can be used while other files' static objects are being initialised, and from their destructors
/// if they were constructed after its first use.
#pragma once

#include <boost/thread/lock_types.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <cstdint>
#include <map>
#include <unordered_map>

#include "proto/export.h"
#include "vobject/string_ref.h"
#include "vobject/symbol_index.h"
#include "vobject/vobject_string.h"

namespace VORN {

/// The names, the ids, and their lock.
class VORN_API SymbolTable {
 public:
  /// What holds the lock: `SymbolTable::Lock hold(table.symbol_table_lock());`.
  using Lock = boost::unique_lock<boost::recursive_mutex>;

  /// The table of the process. Thread-safe.
  static SymbolTable& instance();

  /// Every function below except name_slot() takes the lock, unless it is asked for what was there before this thread
  /// last held it: that never changes. A thread may take it again.
  boost::recursive_mutex& symbol_table_lock() { return lock_; }

  /// The id of that name, a new one if it has none. Throws std::bad_alloc; the table is then as before.
  uint32_t intern(const string_ref& name);

  /// Whether the id has an entry, and what it holds: possibly null, where name_or_null() made it.
  bool find_name(uint32_t id, VObjectString*& name);

  /// The id's name; null for an id that has none, which then has an entry that says so. Throws
  /// std::bad_alloc.
  VObjectString* name_or_null(uint32_t id);

  /// The same without the lock. REQUIRES: no other thread uses the table.
  VObjectString* name_slot(uint32_t id) { return symbol_names_[id]; }

  SymbolTable(const SymbolTable&) = delete;
  SymbolTable& operator=(const SymbolTable&) = delete;

 private:
  SymbolTable() = default;
  ~SymbolTable() = default;

  uint32_t create_symbol(const string_ref& name, size_t hash);
  VObjectString* find_met(uint32_t id) const;

  boost::recursive_mutex lock_;
  std::map<string_ref, uint32_t> symbol_ids_;  ///< keys are static, over the strings of the names
  std::unordered_map<uint32_t, VObjectString*> symbol_names_;
  uint32_t next_id_ = 1;
  SymbolIndex index_;  ///< keeps the strings of the names, and keeps them reachable for leak checkers
};

}  // namespace VORN
