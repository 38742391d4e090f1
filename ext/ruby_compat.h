/// Ruby's headers, and all that the extension knows of Ruby's versions: no other file of ours asks for one. What
/// extconf.rb probes for or tells by the version becomes a function or a constant here.
///
///   of the interpreter                  | where            | elsewhere
///   ------------------------------------|------------------|------------------------------------------------
///   callbacks with their real types     | since 2.7        | VALUEFUNC() casts them
///   RARRAY_CONST_PTR_TRANSIENT          | 2.6 to 3.2       | RARRAY_CONST_PTR
///   OBJ_TAINT                           | until 2.6        | nothing is tainted
///   rb_gc_adjust_memory_usage           | since 2.4        | gc_memory_usage.cc counts, and starts collections
///   xmalloc for a buffer's variables    | until 3.4        | adjust_gc_memory_usage() calls it: it may collect
///   rb_method_basic_definition_p        | exact since 2.3  | overridden_each.cc looks for aliases itself
///   Strings are hashed by itself        | known until 3.4  | object_decoder.cc checks every bound twice
///   ruby_stack_check                    | sure since 2.7   | machine_stack.cc looks at the stack's bounds
///   rb_enc_interned_str                 | since 3.0        | a Hash makes keys, which key_cache.cc keeps
///   rb_hash_bulk_insert                 | used with it     | key_cache.cc stores pair by pair
///   rb_ext_ractor_safe, Ractor's locals | since 3.0        | there are no Ractors
///   headers that need no <cstdbool>     | since 3.4        | <stdbool.h> comes first, below
///   DATA_PTR, with struct RData         | until 4.0        | RTYPEDDATA_DATA, which all have
#pragma once

// Where this is, the headers leave out <cstdbool>, which libstdc++ 16 warns of and C++20 has no more.
#include <stdbool.h>

#include <ruby.h>
#include <ruby/encoding.h>

#include <cstddef>
#include <cstdint>

#if defined(HAVE_RB_ENC_INTERNED_STR) && defined(HAVE_RB_HASH_BULK_INSERT)
#define VORN_RUBY_INTERNS_KEYS
#include <ruby/ractor.h>
#endif
#ifdef VORN_RUBY_OVERRUNS_THE_STACK
#include <pthread.h>
#endif

// Before 2.7 the headers declare callbacks with unnamed parameters, f(...), which in C++ no real function
// matches. From 2.7 on they know the callbacks' real types, and the old cast is deprecated. RDoc reads this name.
#ifdef VORN_RUBY_HAS_TYPED_CALLBACKS
#define VALUEFUNC(function) (function)
#else
#define VALUEFUNC(function) (reinterpret_cast<VALUE (*)(ANYARGS)>(function))
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

/// The members of an Array, valid until Ruby runs next. Where arrays may be transient, the plain accessor moves them
/// to another heap first, for callers that keep the pointer.
inline const VALUE* array_members(VALUE array) {
#ifdef RARRAY_CONST_PTR_TRANSIENT
  return RARRAY_CONST_PTR_TRANSIENT(array);
#else
  return RARRAY_CONST_PTR(array);
#endif
}

/// Marks what came from outside.
inline VALUE taint(VALUE obj) {
#ifdef VORN_RUBY_TAINTS
  OBJ_TAINT(obj);
#endif
  return obj;
}

/// For an interpreter that takes no such reports: starts a collection when enough native memory has come. REQUIRES:
/// as adjust_gc_memory_usage(), which calls it.
void count_native_memory(int64_t difference);

/// Tells the collector of native memory that it does not see, so that it runs in time. May start a collection when
/// there is more than before; with less it may be called from within one.
inline void adjust_gc_memory_usage(int64_t difference) {
#ifdef HAVE_RB_GC_ADJUST_MEMORY_USAGE
  rb_gc_adjust_memory_usage(static_cast<ssize_t>(difference));
#ifdef VORN_RUBY_KEEPS_VARIABLES_IN_OBJECTS
  // Whether a collection is due is looked at when the interpreter allocates memory, as each new buffer's variables did.
  if (difference > 0) xfree(xmalloc(1));
#endif
#else
  count_native_memory(difference);
#endif
}

/// Whether rb_method_basic_definition_p() takes an alias of a built-in method for the method.
#ifdef VORN_RUBY_ALIASES_PASS_FOR_BUILTIN
constexpr bool ALIASES_PASS_FOR_BUILTIN = true;
#else
constexpr bool ALIASES_PASS_FOR_BUILTIN = false;
#endif

/// The number of a class's method cache, which changes with every change of its methods; 0 where it is not to be had.
/// What stands before it is the same in all of 2.2, whose last release there has been.
inline uint64_t method_cache_number(VALUE klass) {
#ifdef VORN_RUBY_ALIASES_PASS_FOR_BUILTIN
  struct ClassExtension {
    const void* tables[3];
    const void* subclasses[3];
    unsigned LONG_LONG number;
  };
  return reinterpret_cast<const ClassExtension*>(RCLASS(klass)->ptr)->number;
#else
  static_cast<void>(klass);
  return 0;
#endif
}

/// Raises method_cache_number() where there is one.
inline void clear_method_cache(VALUE klass) {
#ifdef VORN_RUBY_ALIASES_PASS_FOR_BUILTIN
  rb_clear_method_cache_by_class(klass);
#else
  static_cast<void>(klass);
#endif
}

/// Whether ruby_stack_check() says that there is room on the stack whatever there is.
#ifdef VORN_RUBY_OVERRUNS_THE_STACK
constexpr bool OVERRUNS_THE_STACK = true;
#else
constexpr bool OVERRUNS_THE_STACK = false;
#endif

/// The bounds of this thread's machine stack, where the interpreter overruns it. False: not to be had.
inline bool get_thread_stack(void** low, size_t* size) noexcept {
#ifdef VORN_RUBY_OVERRUNS_THE_STACK
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return false;
  const bool known = pthread_attr_getstack(&attributes, low, size) == 0;
  pthread_attr_destroy(&attributes);
  return known;
#else
  static_cast<void>(low);
  static_cast<void>(size);
  return false;
#endif
}

/// Whether the frozen String that all Hashes share for a key can be had from its bytes.
#ifdef VORN_RUBY_INTERNS_KEYS
constexpr bool INTERNS_KEYS = true;
#else
constexpr bool INTERNS_KEYS = false;
#endif

/// A new String.
inline VALUE new_string(const char* bytes, long length, int encoding_index) {
  const VALUE str = rb_str_new(bytes, length);
  // rb_enc_associate() would check what is known of a new String, and of an index small enough for its flags.
  ENCODING_SET_INLINED(str, encoding_index);
  return taint(str);
}

/// Whether the interpreter hashes Strings and compares them without a call that the program could have replaced:
/// docs/development/decisions/0010-no-second-check.md.
#ifdef VORN_RUBY_HASHES_STRINGS_ITSELF
constexpr bool HASHES_STRINGS_ITSELF = true;
#else
constexpr bool HASHES_STRINGS_ITSELF = false;
#endif

/// A String for a key of these bytes: the one that all Hashes share, or one of which a Hash makes its own.
inline VALUE key_string(const char* bytes, long length, int encoding_index) {
#ifdef VORN_RUBY_INTERNS_KEYS
  return rb_enc_interned_str(bytes, length, rb_enc_from_index(encoding_index));
#else
  return new_string(bytes, length, encoding_index);
#endif
}

/// The String that a Hash stores for a key of these bytes: one that other Hashes take as it is.
inline VALUE stored_key_string(const char* bytes, long length, int encoding_index) {
  const VALUE key = key_string(bytes, length, encoding_index);
  if (INTERNS_KEYS) return key;
  VALUE hash = rb_hash_new();
  rb_hash_aset(hash, key, Qnil);
  VALUE stored = Qnil;
  const HashEntryFunction take_key = [](VALUE found, VALUE, VALUE to) -> int {
    *reinterpret_cast<VALUE*>(to) = found;
    return ST_STOP;
  };
  each_hash_entry(hash, take_key, reinterpret_cast<VALUE>(&stored));
  RB_GC_GUARD(hash);
  return stored;
}

/// Stores keys and values that alternate in a Hash, all at once. False: that cannot be, and nothing is stored.
/// REQUIRES: String keys come from key_string().
inline bool insert_in_bulk(VALUE hash, const VALUE* pairs, long count) {
#ifdef VORN_RUBY_INTERNS_KEYS
  rb_hash_bulk_insert(count, pairs, hash);
#else
  static_cast<void>(hash);
  static_cast<void>(pairs);
  static_cast<void>(count);
#endif
  return INTERNS_KEYS;
}

/// A Ruby object that each Ractor has of its own, or the process where there are no Ractors.
class RactorLocal {
 public:
#ifdef VORN_RUBY_INTERNS_KEYS
  void init() {
    key_ = rb_ractor_local_storage_value_newkey();
  }
  bool find(VALUE* obj) const {
    return rb_ractor_local_storage_value_lookup(key_, obj);
  }
  void set(VALUE obj) {
    rb_ractor_local_storage_value_set(key_, obj);
  }

 private:
  rb_ractor_local_key_t key_;
#else
  void init() {
    rb_gc_register_address(&obj_);
  }
  bool find(VALUE* obj) const {
    return RTEST(*obj = obj_);
  }
  void set(VALUE obj) {
    obj_ = obj;
  }

 private:
  VALUE obj_ = Qnil;
#endif
};

/// Says that the extension may be used by several Ractors.
inline void declare_ractor_safe() {
#ifdef HAVE_RB_EXT_RACTOR_SAFE
  rb_ext_ractor_safe(true);
#endif
}

}  // namespace EXT
}  // namespace VORN
