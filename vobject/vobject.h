/// The variant: nil, integer, double, boolean, symbol, byte string, hash, vector, user-defined object, or a
/// reference to another value. It is what messages are decoded into and encoded from.
///
/// Copies share: a copy of a string, hash or vector is another handle on the same storage, and a change
/// through one is seen through all. deep_copy() makes an independent value.
///
///   VObject msg = VObject::new_hash();
///   msg.store("id", 7);
///   msg.store("args", VObject::new_vector());
///   msg.fetch("args").append("one");              // msg = {"args"=>["one"], "id"=>7}
///   msg.serialize(frame, 64);
///
/// References. `v = boost::shared_ptr<VObject>` makes v a reference; the shared pointer's value is its
/// referent. Operations work on the target: the value behind the reference, or the value itself when it is
/// none. What works on the value itself: construction, destruction, making a reference, get_ref_type, getref,
/// unref, and a copy or move assignment from a reference or from a value that is stored in place. So:
///
///   r = 5;             // r is a reference: its referent becomes 5
///   r = VObject(5);    // r itself becomes 5 and is no reference any more
///   r = VObject("s");  // the referent becomes "s"
///   r = {};            // as r = VObject(): r itself becomes nil
///
/// The same holds of references that are elements, whoever assigns to them: std::vector::erase and std::remove,
/// which assign each element to the one before, write through them.
///
/// Threads. There is no lock. The counts of shared storage are atomic: values that share may be copied and
/// released on different threads, but what they share must not be changed while another thread uses it.
///
/// What the caller must not do: build a cycle. Storage is counted, so a hash that is stored into itself, a
/// referent that is copy-assigned a reference to itself, or a value into which one is merged that it is part of,
/// is never freed; and the operations that walk a value
/// (equality, merge, diff, render, serialize, following a reference) do not end on it or exhaust the stack.
/// The same operations, and the end of a value's life, use machine stack for every level of nesting. A value that holds
/// the same part twice at every level is walked as often as it unfolds: 2^levels.
///
/// All failures of the library are VornRuntimeError with the text that is given. Running out of memory is
/// std::bad_alloc, and asking a string or vector for more than its max_size() is std::length_error; both leave
/// values as they were, except where an operation says that it works step by step.
#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <map>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "proto/export.h"
#include "vobject/data_types.h"
#include "vobject/string_ref.h"
#include "vobject/vobject_string.h"
#include "vobject/vobject_udt.h"

namespace VORN {

namespace PROTO {
class PacketBuf;
}

class VObject;

/// What variants of the kinds DT_HASH and DT_VECTOR hold.
/// @{
using VObjectHash = std::map<string_ref, VObject>;
using VObjectVector = std::vector<VObject>;
/// @}

/// A tag, and a scalar or a share of what the tag names.
class VORN_API VObject {
  /// Integers of any width and unscoped enumerations become DT_INT. bool, and pointers by way of bool, do
  /// not.
  template <typename T>
  using IfInteger =
      std::enable_if_t<(std::is_integral<T>::value || std::is_enum<T>::value) &&
                           !std::is_same<T, bool>::value && std::is_convertible<T, int64_t>::value,
                       int>;
  /// bool, and what a std::vector<bool> has in its place.
  template <typename T>
  using IfBool =
      std::enable_if_t<std::is_same<T, bool>::value || std::is_same<T, std::vector<bool>::reference>::value, int>;
  template <typename T>
  using IfFloating = std::enable_if_t<std::is_floating_point<T>::value, int>;
  /// What no value can be made from, braces included.
  class Nothing {
    Nothing(const Nothing&) {}
  };

 public:
  /// Nil.
  constexpr VObject() noexcept : inline_{0, nullptr}, tag_(DT_NIL) {}

  /// Integer, boolean, double.
  /// @{
  template <typename T, IfInteger<T> = 0>
  VObject(T value) noexcept : inline_{word_of(static_cast<int64_t>(value)), nullptr}, tag_(DT_INT) {}
  template <typename T, IfBool<T> = 0>
  VObject(T value) noexcept : inline_{value ? 1U : 0U, nullptr}, tag_(DT_BOOL) {}
  template <typename T, IfFloating<T> = 0>
  VObject(T value) noexcept : inline_{word_of(static_cast<double>(value)), nullptr}, tag_(DT_DOUBLE) {}
  /// @}

  /// A string with a copy of the bytes. A null pointer gives an empty string. From a VObjectString, the text
  /// up to its first zero byte is taken. Throw std::bad_alloc; std::length_error for more bytes than a string
  /// can hold.
  /// @{
  VObject(const char* text);
  VObject(const char* bytes, size_t length);
  VObject(const std::string& bytes);
  VObject(const VObjectString& text);
  /// @}

  /// A vector with copies of the elements. Explicit, so that copying a std::vector<VObject> with braces does
  /// not wrap it in a variant. Throws std::bad_alloc.
  explicit VObject(const VObjectVector& elements);

  /// A user-defined value, which shares the object; an empty pointer gives one that holds none.
  VObject(const boost::shared_ptr<VObjectUDT>& object) noexcept;

  /// An empty hash; an empty vector with room for n elements. Throw std::bad_alloc, and std::length_error for
  /// more elements than a vector can hold.
  /// @{
  static VObject new_hash();
  static VObject new_vector(size_t n = 0);
  /// @}

  /// Shares what the source shares. The copy of a reference is a second reference to the same referent.
  VObject(const VObject& src) noexcept : VObject() {
    if (is_shared_type(src.tag_)) {
      share(src);
    } else {
      copy_inline(src);
    }
  }

  /// Leaves the source nil.
  VObject(VObject&& src) noexcept : VObject() { take(src); }

  ~VObject() {
    if (is_shared_type(tag_)) drop();
  }

  /// Nil, integer, double, boolean and symbol overwrite this value itself, even if it is a reference. So does
  /// a reference: this value becomes a second one to the same referent. String, hash, vector and user-defined
  /// object go into the target, and nothing happens when `src` is reached on the way to it.
  VObject& operator=(const VObject& src) noexcept {
    if (is_shared_type(src.tag_)) {
      assign_shared(src);
    } else if (this != &src) {
      put_inline(src.tag_, src.inline_.word);
    }
    return *this;
  }

  /// Does what the copy assignment does and leaves the source nil, unless nothing happened.
  VObject& operator=(VObject&& src) noexcept {
    if (is_shared_type(src.tag_)) {
      move_shared(src);
    } else if (this != &src) {
      const uint8_t tag = src.tag_;
      const uint64_t word = src.inline_.word;
      src.tag_ = DT_NIL;
      put_inline(tag, word);
    }
    return *this;
  }

  /// `v = {}` is `v = VObject()`.
  VObject& operator=(std::initializer_list<Nothing>) noexcept {
    put_inline(DT_NIL, 0);
    return *this;
  }

  /// Setters, on the target. The argument may be part of what is overwritten; a null pointer gives an empty string,
  /// or a user-defined value that holds no object. Return this value. Throw std::bad_alloc unless they are noexcept.
  /// @{
  template <typename T, IfInteger<T> = 0>
  VObject& operator=(T value) noexcept {
    target().put_inline(DT_INT, word_of(static_cast<int64_t>(value)));
    return *this;
  }
  template <typename T, IfBool<T> = 0>
  VObject& operator=(T value) noexcept {
    target().put_inline(DT_BOOL, value ? 1 : 0);
    return *this;
  }
  template <typename T, IfFloating<T> = 0>
  VObject& operator=(T value) noexcept {
    target().put_inline(DT_DOUBLE, word_of(static_cast<double>(value)));
    return *this;
  }
  VObject& operator=(const char* text);
  VObject& operator=(const std::string& bytes);
  VObject& operator=(const VObjectVector& elements);
  VObject& operator=(const boost::shared_ptr<VObjectUDT>& object) noexcept;
  /// @}

  /// The target becomes nil.
  void set_nil() noexcept;
  /// An empty hash. A target that is a hash already is emptied in place: everything that shares it sees that.
  void reset_hash();
  /// An empty vector with room for `reserve` elements; a target that is a vector is emptied in place. Throws
  /// std::bad_alloc, and std::length_error for more elements than a vector can hold.
  void reset_vector(size_t reserve);
  /// A user-defined value that holds no object.
  void reset_udt() noexcept;

  /// Makes this value itself a reference to what `referent` points at, or, when that is a reference, to the
  /// end of its chain. This value is unchanged when it throws:
  /// - "VObject::operator=: won't assign null reference"
  /// - "VObject::operator=: won't assign reference to self", which may be met along the chain
  VObject& operator=(const boost::shared_ptr<VObject>& referent);

  /// The kind of this value itself: DT_REF for a reference.
  uint8_t type() const noexcept { return tag_; }

  /// On a reference: the kind of its target.
  /// Throws "VObject::get_ref_type called on non-reference".
  uint8_t get_ref_type() const;

  /// On a reference: the pointer to its referent, bound to this value. It must not be made null.
  /// Throws "VObject::getref called on non-reference".
  /// @{
  boost::shared_ptr<VObject>& getref();
  const boost::shared_ptr<VObject>& getref() const;
  /// @}

  /// On a reference: drops it and becomes nil. The referent is as before.
  /// Throws "VObject::unref called on non-reference".
  void unref();

  /// The target's contents, valid until the storage's last sharer is gone.
  /// Throw "VObject::getstr: data type not DT_STR", "VObject::gethash: data type not DT_HASH" and
  /// "VObject::getvec: data type not DT_VECTOR".
  /// @{
  VObjectString& getstr();
  const VObjectString& getstr() const;
  VObjectHash& gethash();
  const VObjectHash& gethash() const;
  VObjectVector& getvec();
  const VObjectVector& getvec() const;
  /// @}

  /// The target's user-defined object; null when it holds none or is of another kind.
  VObjectUDT* udt() const noexcept;

  /// The target's symbol id. Throws "VObject::intern: data type not DT_SYMBOL".
  uint32_t intern() const;

  /// Turns a target that is a string into the symbol of that name; a symbol stays. Returns the target.
  /// Throws "VObject::intern: data type not DT_SYMBOL or DT_STR" and std::bad_alloc.
  VObject& intern();

  /// The string, or the symbol's name; an empty string for other kinds and for a symbol without a name. On a
  /// reference: getstr() of the referent, with its failure. Names live as long as the process.
  /// Reads the symbol table without its lock: no other thread may be interning. Throws std::bad_alloc.
  const VObjectString& str_or_symbol_name() const;

  /// The target as a number. A string counts as what atoi makes of it; a double is cut towards zero, and one
  /// that does not fit gives the most negative integer. Nil, symbol and everything else shared are 0.
  int64_t to_i64() const noexcept;

  /// The target as a truth value. False are nil, 0, 0.0, false, a string of which atoi makes 0, and a
  /// user-defined value without an object. Symbols, hashes and vectors are true, empty ones too.
  bool to_bool() const noexcept;

  /// Whether the target is a hash that has the key. Allocates nothing.
  bool has_key(const char* key) const;

  /// The element under the key, which is made (nil) if it is missing. Bound to the hash.
  /// Throws "non-const VObject::fetch called on non-hash object" and std::bad_alloc.
  VObject& fetch(const char* key);

  /// The element under the key; a nil that lives as long as the process when there is none or when this is no
  /// hash. On a reference, however, this is the other fetch() on the referent, insertion and failure
  /// included.
  const VObject& fetch(const char* key) const;

  /// Assigns `value` to the element under the key, as operator= does, making it first if it is missing.
  /// `value` may be an element of this hash. Returns the target. Throws "VObject::store called on non-hash
  /// object" and std::bad_alloc.
  VObject& store(const char* key, const VObject& value);

  /// The element; negative indexes count from the end. Bound to the vector, until it changes its size.
  /// Throws "non-const VObject::at called on non-vector object" and "non-const VObject::at: index out of
  /// range".
  VObject& at(int64_t index);

  /// Appends a copy of the value, or of all values in order; they may be elements of this vector, or all of
  /// them. Returns the target. Throw "VObject::append called on non-vector object", std::bad_alloc, and
  /// std::length_error when there would be more elements than a vector can hold.
  /// @{
  VObject& append(const VObject& value);
  VObject& append(const VObjectVector& values);
  /// @}

  /// Merges the target of `src` into the target of this value. Hashes merge by key and vectors by index, and
  /// members that are missing here are shared with `src`; nothing is ever removed. Otherwise `src` is
  /// assigned, if either side is nil, or both have one kind, or neither is a hash, vector or user-defined
  /// value. `src` may be part of this value. The reverse ends as well if `src` shares nothing within itself, but
  /// may make this value, or a part of it, contain itself: a cycle, which is the caller's to break (reset_hash,
  /// reset_vector). Returns the target. Works step by step: what was merged before a failure stays
  /// merged. Throws "VObject::merge: Won't merge disparate container and/or user-defined types.", std::bad_alloc
  /// and std::length_error as append() does.
  VObject& merge(const VObject& src);

  /// Makes `out` a patch: merge() of it into a deep copy of `a` gives `b`. Returns whether they differ; if
  /// not, `out` is nil and no patch.
  ///
  /// Two doubles differ where they lie more than `epsilon` apart, and by more than rounding: both their distance
  /// is greater than `epsilon` and the greater one is greater than the sum of the lesser and `epsilon`, each in
  /// double arithmetic. An infinite distance is greater than every finite `epsilon`. A NaN differs from no
  /// double, and a NaN for `epsilon` lets none differ. The order of `a` and `b` makes no difference.
  ///
  /// `structural` is set when a patch cannot say it: a key went away, or a hash that is an element of a
  /// vector changed. `parent_tag` is the kind of what holds `a`: with DT_VECTOR a change of a hash is
  /// structural. Without being structural, a patch fails to give `b` where a vector became shorter, where the
  /// kinds differ and one is a hash, vector or user-defined value and neither is nil, and where there are
  /// NaNs.
  ///
  /// `out` becomes nil first (its target, if it is a reference). It may be part of `a` or of `b`, which then differ from
  /// what they were; inside of `b` it may come to contain itself. The patch shares with `b`, not with `a`.
  /// Throws std::bad_alloc; `out` is then nil.
  /// REQUIRES: user-defined values that are compared hold objects.
  /// @{
  static bool diff(const VObject& a, VObject& out, const VObject& b, bool& structural, int parent_tag,
                   double epsilon);
  static bool diff(const VObject& a, VObject& out, const VObject& b, int parent_tag, double epsilon);
  /// @}

  /// The id of the symbol of that name, which is made if it is new. Ids start at 1. Thread-safe.
  /// Throw std::bad_alloc; the table is then as before.
  /// @{
  static uint32_t intern_string(const string_ref& name);
  static uint32_t intern(const char* name);
  static uint32_t intern(const std::string& name);
  /// @}

  /// The symbol's name, which never changes and lives as long as the process. Null for an id that was never
  /// given to a name but has been rendered or written. Thread-safe.
  /// Throws "VObject::sym_lookup: supplied symbol value not found in map".
  static VObjectString* sym_lookup(uint32_t id);

  /// Writes this value at the buffer's position. At most `maxdepth` levels of nesting, this value being the
  /// first; machine stack is used for each level. A value that fails stays partly written. Throws, besides
  /// what writing throws (PacketBuf::claim):
  /// - "VObject::serialize: maxdepth exceeded"
  /// - "VObject::serialize: serialization of DT_UDT not yet supported"
  /// - "VObject::serialize: serialization of DT_REF not yet supported"; a reference is not followed
  /// - "VObject::serialize: internal error: SYMBOL symbal points to NULL symbol data", for an id without a
  /// name
  /// - "VObject::serialize: unrecognized data type"
  void serialize(PROTO::PacketBuf& buf, uint32_t maxdepth) const;

  /// Reads one value at the buffer's position into `out` itself, whatever `out` was, and moves the position
  /// behind it. No value may start at or behind the index `end`. Symbols are interned, or come as strings.
  ///
  /// The value is checked before anything is built, and `out` stays as it was if the check fails; only a hash
  /// key that is no string, a string that leaves the payload and the end of memory are found later, and leave
  /// `out` partly built. Either way the position is where reading stopped.
  ///
  /// Machine stack is used for each level of nesting, up to 260 bytes; `maxdepth` must not allow more than
  /// the thread's stack holds. A limit of 2^31 or more counts as negative, and nothing passes it.
  ///
  /// Throws std::bad_alloc and:
  /// - "VObject::deserialize: maxdepth exceeded"
  /// - "VObject::deserialize: buffer underrun"
  /// - "VObject::deserialize: buffer underrun decoding integer"
  /// - "VObject::deserialize: unrecognized protocol transport type"
  /// - "VObject::deserialize_str: buffer underrun decoding data length"
  /// - "VObject::deserialize_str: buffer underrun extracting data bytes"
  /// - "VObject::deserialize_float: buffer underrun"
  /// - "VObject::deserialize_double: buffer underrun"
  /// - "VObject::deserialize_hash: buffer underrun"
  /// - "VObject::deserialize_hash: only hash keys of type string are supported"
  /// - "VObject::deserialize_array: buffer underrun"
  static void deserialize(PROTO::PacketBuf& buf, uint64_t end, VObject& out, bool symbols_as_strings,
                          uint32_t maxdepth);

 private:
  struct SerializeContext;
  struct DeserializeContext;

  /// The fields of a value that is not shared. The count takes the place of a shared pointer's count.
  struct Inline {
    uint64_t word;
    void* count;
  };

  static uint64_t word_of(int64_t value) { return static_cast<uint64_t>(value); }
  static uint64_t word_of(double value) {
    uint64_t word;
    std::memcpy(&word, &value, sizeof word);
    return word;
  }
  int64_t as_int() const { return static_cast<int64_t>(inline_.word); }
  double as_double() const {
    double value;
    std::memcpy(&value, &inline_.word, sizeof value);
    return value;
  }
  uint32_t as_symbol() const { return static_cast<uint32_t>(inline_.word); }
  VObjectString& as_str() const { return *static_cast<VObjectString*>(shared_.get()); }
  VObjectHash& as_hash() const { return *static_cast<VObjectHash*>(shared_.get()); }
  VObjectVector& as_vec() const { return *static_cast<VObjectVector*>(shared_.get()); }
  VObjectUDT* as_udt() const { return static_cast<VObjectUDT*>(shared_.get()); }

  VObject(uint8_t tag, boost::shared_ptr<void>&& storage) noexcept : shared_(std::move(storage)), tag_(tag) {}

  /// The end of the chain of references.
  VObject& target() noexcept {
    VObject* v = this;
    while (v->tag_ == DT_REF) v = v->ref_.get();
    return *v;
  }
  const VObject& target() const noexcept { return const_cast<VObject*>(this)->target(); }

  void copy_inline(const VObject& src) noexcept {
    inline_ = src.inline_;
    tag_ = src.tag_;
  }
  void share(const VObject& src) noexcept;
  void take(VObject& src) noexcept;
  void drop() noexcept;
  void assign_shared(const VObject& src) noexcept;
  void move_shared(VObject& src) noexcept;

  /// Overwrite this value itself. The old contents go last, when this value is complete: their end may be the
  /// end of much else, of the source or of this very value.
  void put_inline(uint8_t tag, uint64_t word) noexcept {
    if (is_shared_type(tag_)) {
      replace(VObject(tag, word));
    } else {
      inline_.word = word;
      tag_ = tag;
    }
  }
  void put_shared(uint8_t tag, boost::shared_ptr<void>&& storage) noexcept {
    replace(VObject(tag, std::move(storage)));
  }
  void replace(VObject&& contents) noexcept;
  VObject(uint8_t tag, uint64_t word) noexcept : inline_{word, nullptr}, tag_(tag) {}

  static bool equal(const VObject& a, const VObject& b);
  static void merge_into(VObject& dst, const VObject& src);
  static bool diff_into(const VObject& a, VObject& out, const VObject& b, bool& structural, int parent_tag,
                        double epsilon);
  void serialize(const SerializeContext& ctx, int32_t depth) const;
  void serialize_symbol(const SerializeContext& ctx) const;
  void serialize_hash(const SerializeContext& ctx, int32_t depth) const;
  void serialize_vector(const SerializeContext& ctx, int32_t depth) const;
  static void deserialize(DeserializeContext& ctx, VObject& out);
  static void deserialize_hash(DeserializeContext& ctx, VObject& out);
  static void deserialize_array(DeserializeContext& ctx, VObject& out);
  static void deserialize_str(DeserializeContext& ctx, VObject& out);
  static void deserialize_float(DeserializeContext& ctx, VObject& out);
  static void deserialize_double(DeserializeContext& ctx, VObject& out);

  friend bool operator==(const VObject& a, const VObject& b);
  friend VObject& deep_copy(const VObject& source, VObject& target);
  friend void render(const VObject& v, std::string& out);

  union {
    Inline inline_;                   ///< DT_NIL to DT_SYMBOL
    boost::shared_ptr<void> shared_;  ///< DT_STR to DT_UDT: points at the payload type of the tag
    boost::shared_ptr<VObject> ref_;  ///< DT_REF
  };
  uint8_t tag_;
};

static_assert(sizeof(void*) != 8 || sizeof(VObject) == 24, "payload word, shared count, tag");

/// Whether the targets have one kind and equal contents: integers, doubles and booleans never equal each
/// other, NaN equals nothing, hashes and vectors compare by element. A value always equals itself. REQUIRES:
/// user-defined values that are compared hold objects.
VORN_API bool operator==(const VObject& a, const VObject& b);
/// The opposite.
inline bool operator!=(const VObject& a, const VObject& b) {
  return !(a == b);
}

/// The same as dst.merge(src).
VORN_API VObject& merge(VObject& dst, const VObject& src);

/// Makes `target` an independent copy of `source`, by way of the encoding, and returns it. `target` becomes
/// nil first (the end of its chain, if it is a reference), then itself the copy; with `source` as its own
/// target the result is nil. At most 64 levels. Throws what serialize() and deserialize() throw; `target` is
/// then nil or partly built.
VORN_API VObject& deep_copy(const VObject& source, VObject& target);

inline void VObject::take(VObject& src) noexcept {
  if (!is_shared_type(src.tag_)) {
    inline_ = src.inline_;
  } else if (src.tag_ == DT_REF) {
    new (&ref_) boost::shared_ptr<VObject>(std::move(src.ref_));
  } else {
    new (&shared_) boost::shared_ptr<void>(std::move(src.shared_));
  }
  tag_ = src.tag_;
  src.inline_ = {0, nullptr};
  src.tag_ = DT_NIL;
}

}  // namespace VORN
