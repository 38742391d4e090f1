/// Ruby's headers, and every shim that the supported interpreters need. Each names the version that makes it
/// needed, so that a later reader knows when to delete it.
#pragma once

#include <ruby.h>
#include <ruby/encoding.h>

// Before 2.7 the headers declare callbacks with unnamed parameters, f(...), which in C++ no real function
// matches. From 2.7 on they know the callbacks' real types, and the old cast is deprecated.
#ifdef VORN_RUBY_HAS_TYPED_CALLBACKS
#define VORN_CALLBACK(function) (function)
#else
#define VORN_CALLBACK(function) (reinterpret_cast<VALUE (*)(ANYARGS)>(function))
#endif

// Since 3.0, like Ractors: the frozen String that a Hash keeps for a key can be had from its bytes.
#if defined(HAVE_RB_ENC_INTERNED_STR) && defined(HAVE_RB_HASH_BULK_INSERT)
#define VORN_RUBY_INTERNS_KEYS
#endif

namespace VORN {
namespace EXT {

using HashEntryFunction = int (*)(VALUE key, VALUE value, VALUE arg);

inline void each_hash_entry(VALUE hash, HashEntryFunction function, VALUE arg) {
#ifdef VORN_RUBY_HAS_TYPED_CALLBACKS
  rb_hash_foreach(hash, function, arg);
#else
  rb_hash_foreach(hash, reinterpret_cast<int (*)(ANYARGS)>(function), arg);
#endif
}

/// The members of an Array, valid until Ruby runs next. From 2.6 to 3.2 the plain accessor moves them to another
/// heap first, for callers that keep the pointer.
inline const VALUE* array_members(VALUE array) {
#ifdef RARRAY_CONST_PTR_TRANSIENT
  return RARRAY_CONST_PTR_TRANSIENT(array);
#else
  return RARRAY_CONST_PTR(array);
#endif
}

/// Marks what came from outside. Tainting ended with 2.7.
inline VALUE taint(VALUE obj) {
#ifdef VORN_RUBY_TAINTS
  OBJ_TAINT(obj);
#endif
  return obj;
}

/// Tells the collector of native memory that it does not see, so that it runs in time. The function that does
/// it came with 2.4; before, gc_memory_usage.cc starts a collection itself.
#ifdef HAVE_RB_GC_ADJUST_MEMORY_USAGE
inline void adjust_gc_memory_usage(int64_t difference) {
  rb_gc_adjust_memory_usage(static_cast<ssize_t>(difference));
}
#else
void adjust_gc_memory_usage(int64_t difference);
#endif

}  // namespace EXT
}  // namespace VORN
