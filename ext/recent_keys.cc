#include "ext/recent_keys.h"

#ifdef VORN_RUBY_INTERNS_KEYS

#include <ruby/ractor.h>

#include <new>
#include <type_traits>

namespace VORN {
namespace EXT {

namespace {

rb_ractor_local_key_t storage_key;

void mark_recent_keys(void* data) {
  static_cast<const RecentKeys*>(data)->mark();
}

size_t recent_keys_size(const void*) {
  return sizeof(RecentKeys);
}

const rb_data_type_t* recent_keys_type() {
  static const rb_data_type_t type = [] {
    rb_data_type_t t = rb_data_type_t();
    t.wrap_struct_name = "VORN recent keys";
    t.function.dmark = mark_recent_keys;
    t.function.dfree = RUBY_TYPED_DEFAULT_FREE;
    t.function.dsize = recent_keys_size;
    return t;
  }();
  return &type;
}

}  // namespace

void RecentKeys::mark() const {
  for (const VALUE key : keys_) {
    if (key != 0) rb_gc_mark(key);
  }
}

RecentKeys& RecentKeys::of_this_ractor() {
  static_assert(std::is_trivially_destructible<RecentKeys>::value, "the collector frees its memory, no more");
  VALUE handle;
  if (!rb_ractor_local_storage_value_lookup(storage_key, &handle)) {
    RecentKeys* memory;
    handle = TypedData_Make_Struct(0, RecentKeys, recent_keys_type(), memory);  // class 0: hidden from ObjectSpace
    new (memory) RecentKeys();
    rb_ractor_local_storage_value_set(storage_key, handle);
  }
  return *static_cast<RecentKeys*>(RTYPEDDATA_DATA(handle));
}

void init_recent_keys() {
  storage_key = rb_ractor_local_storage_value_newkey();
}

}  // namespace EXT
}  // namespace VORN

#endif
