/// The variant: nil, integer, double, boolean, symbol, byte string, hash, vector, user-defined object, or a reference
/// to another value. Messages are decoded into it and encoded from it.
///
///   VObject msg = VObject::new_hash();
///   msg.store("id", 7);
///   msg.store("args", VObject::new_vector());
///   msg.fetch("args").append("one");              // msg = {"args"=>["one"], "id"=>7}
///   msg.serialize(frame, 64);
///
/// Copies share: a copy of a string, hash or vector is another handle on the same storage, and a change through one is
/// seen through all. deep_copy() makes an independent value.
///
/// Operations work on the target: the value behind a chain of references, or the value itself when it is none. Where an
/// operation works on the value itself, its contract says so.
///
/// The library takes no lock for a value, and finds no cycle: a value that contains itself is never freed, and walking
/// it does not end. Nesting costs machine stack, when a value ends too. docs/guide/cpp.md explains references,
/// cycles and threads by example.
///
/// A value's layout is compiled into programs, and changes only with the library's SOVERSION.
///
/// All failures of the library are VornRuntimeError with the text that is given. Running out of memory is
/// std::bad_alloc, and asking a string or vector for more than its max_size() is std::length_error; both leave values
/// as they were, except where an operation says that it works step by step.
#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "proto/export.h"
#include "vobject/data_types.h"
#include "vobject/string_ref.h"
#include "vobject/vobject_payload.h"
#include "vobject/vobject_string.h"
#include "vobject/vobject_udt.h"

namespace VORN {

namespace PROTO {
class PacketBuf;
}

/// A value of any kind.
class VORN_API VObject {
  /// Integers of any width and unscoped enumerations become DT_INT. bool does not, nor pointers by way of bool.
  template <typename T>
  using IfInteger = std::enable_if_t<(std::is_integral<T>::value || std::is_enum<T>::value) &&
                                         !std::is_same<T, bool>::value && std::is_convertible<T, int64_t>::value,
                                     int>;
  /// bool, and what a std::vector<bool> has in its place: for a constant one too, in libc++.
  template <typename T>
  using IfBool =
      std::enable_if_t<std::is_same<T, bool>::value || std::is_same<T, std::vector<bool>::reference>::value ||
                           std::is_same<T, std::vector<bool>::const_reference>::value,
                       int>;
  template <typename T>
  using IfFloating = std::enable_if_t<std::is_floating_point<T>::value, int>;
  /// What no value can be made from, braces included.
  class Nothing {
    Nothing(const Nothing&) {}
  };

 public:
  /// Nil.
  constexpr VObject() noexcept {}  // defaulted, it would be zeroed first where it is value-initialized

  /// Integer, boolean, double.
  /// @{
  template <typename T, IfInteger<T> = 0>
  VObject(T value) noexcept : payload_(DT_INT, VObjectPayload::word_of(static_cast<int64_t>(value))) {}
  template <typename T, IfBool<T> = 0>
  VObject(T value) noexcept : payload_(DT_BOOL, value ? 1 : 0) {}
  template <typename T, IfFloating<T> = 0>
  VObject(T value) noexcept : payload_(DT_DOUBLE, VObjectPayload::word_of(static_cast<double>(value))) {}
  /// @}

  /// A string with a copy of the bytes. A null pointer gives an empty string. From a VObjectString, the text up to its
  /// first zero byte is taken. Throw std::bad_alloc; std::length_error for more bytes than a string can hold.
  /// @{
  VObject(const char* text);
  VObject(const char* bytes, size_t length);
  VObject(const std::string& bytes);
  VObject(std::string_view bytes);
  VObject(const VObjectString& text);
  /// @}

  /// Two texts are no vector: new_vector() and append() make one.
  template <typename T, std::enable_if_t<std::is_pointer<T>::value, int> = 0>
  VObject(const char* text, T second) = delete;

  /// A vector with copies of the elements. Explicit, so that copying a std::vector<VObject> with braces does not wrap
  /// it in a variant. Throws std::bad_alloc.
  explicit VObject(const VObjectVector& elements);

  /// A user-defined value, which shares the object; an empty pointer gives one that holds none.
  VObject(const boost::shared_ptr<VObjectUDT>& object) noexcept;

  /// An empty hash; an empty vector with room for n elements. Throw std::bad_alloc, and std::length_error for more
  /// elements than a vector can hold.
  /// @{
  static VObject new_hash();
  static VObject new_vector(size_t n = 0);
  /// @}

  /// Shares what the source shares. The copy of a reference is a second reference to the same referent.
  VObject(const VObject& src) noexcept = default;

  /// Leaves the source nil.
  VObject(VObject&& src) noexcept = default;

  ~VObject() = default;

  /// Nil, integer, double, boolean and symbol overwrite this value itself, even if it is a reference. So does a
  /// reference: this value becomes a second one to the same referent. String, hash, vector and user-defined object go
  /// into the target, and nothing happens when `src` is reached on the way to it.
  VObject& operator=(const VObject& src) noexcept {
    if (is_shared_type(src.type())) {
      assign_shared(src);
    } else if (this != &src) {
      payload_.set_scalar(src.type(), src.payload_.word());
    }
    return *this;
  }

  /// Does what the copy assignment does and leaves the source nil, unless nothing happened.
  VObject& operator=(VObject&& src) noexcept {
    if (is_shared_type(src.type())) {
      move_shared(src);
    } else if (this != &src) {
      const VObjectPayload scalar(std::move(src.payload_));
      payload_.set_scalar(scalar.tag(), scalar.word());
    }
    return *this;
  }

  /// `v = {}` is `v = VObject()`.
  VObject& operator=(std::initializer_list<Nothing>) noexcept {
    payload_.set_scalar(DT_NIL, 0);
    return *this;
  }

  /// Setters, on the target. The argument may be part of what is overwritten; a null pointer gives an empty string, or
  /// a user-defined value that holds no object. Return this value. Throw std::bad_alloc unless they are noexcept.
  /// @{
  template <typename T, IfInteger<T> = 0>
  VObject& operator=(T value) noexcept {
    target().payload_.set_scalar(DT_INT, VObjectPayload::word_of(static_cast<int64_t>(value)));
    return *this;
  }
  template <typename T, IfBool<T> = 0>
  VObject& operator=(T value) noexcept {
    target().payload_.set_scalar(DT_BOOL, value ? 1 : 0);
    return *this;
  }
  template <typename T, IfFloating<T> = 0>
  VObject& operator=(T value) noexcept {
    target().payload_.set_scalar(DT_DOUBLE, VObjectPayload::word_of(static_cast<double>(value)));
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

  /// Makes this value itself a reference to what `referent` points at, or, when that is a reference, to the end of its
  /// chain. This value is unchanged when it throws:
  /// - "VObject::operator=: won't assign null reference"
  /// - "VObject::operator=: won't assign reference to self", which may be met along the chain
  VObject& operator=(const boost::shared_ptr<VObject>& referent);

  /// The kind of this value itself: DT_REF for a reference.
  uint8_t type() const noexcept { return payload_.tag(); }

  /// On a reference: the kind of its target.
  /// Throws "VObject::get_ref_type called on non-reference".
  uint8_t get_ref_type() const;

  /// On a reference: the pointer to its referent, bound to this value.
  /// Throws "VObject::getref called on non-reference". REQUIRES: the pointer is not made null.
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

  /// The string, or the symbol's name; an empty string for other kinds and for a symbol without a name. On a reference:
  /// getstr() of the referent, with its failure. Names live as long as the process. Throws std::bad_alloc.
  /// REQUIRES: no other thread is interning; the symbol table is read without its lock.
  const VObjectString& str_or_symbol_name() const;

  /// The target as a number. A string counts as what atoi makes of it; a double is cut towards zero, and one that does
  /// not fit gives the most negative integer. Nil, symbol and everything else shared are 0.
  int64_t to_i64() const noexcept;

  /// The target as a truth value. False are nil, 0, 0.0, false, a string of which atoi makes 0, and a user-defined
  /// value without an object. Symbols, hashes and vectors are true, empty ones too.
  bool to_bool() const noexcept;

  /// Keys are texts that end at a zero byte, or all bytes of a std::string or std::string_view.
  /// @{

  /// Whether the target is a hash that has the key. Allocates nothing.
  bool has_key(const char* key) const;
  bool has_key(std::string_view key) const;

  /// The element under the key, which is made (nil) if it is missing. Bound to the hash.
  /// Throws "non-const VObject::fetch called on non-hash object" and std::bad_alloc.
  VObject& fetch(const char* key);
  VObject& fetch(std::string_view key);

  /// The element under the key; a nil that lives as long as the process when there is none or when this is no hash. On
  /// a reference, however, this is the other fetch() on the referent, insertion and failure included.
  const VObject& fetch(const char* key) const;
  const VObject& fetch(std::string_view key) const;

  /// Assigns `value` to the element under the key, as operator= does, making it first if it is missing. `value` may be
  /// an element of this hash. Returns the target.
  /// Throws "VObject::store called on non-hash object" and std::bad_alloc.
  VObject& store(const char* key, const VObject& value);
  VObject& store(std::string_view key, const VObject& value);
  /// @}

  /// The element; negative indexes count from the end. Bound to the vector, until it changes its size.
  /// Throws "non-const VObject::at called on non-vector object" and "non-const VObject::at: index out of range".
  VObject& at(int64_t index);

  /// Appends a copy of the value, or of all values in order; they may be elements of this vector, or all of them.
  /// Returns the target. Throw "VObject::append called on non-vector object", std::bad_alloc, and std::length_error
  /// when there would be more elements than a vector can hold.
  /// @{
  VObject& append(const VObject& value);
  VObject& append(const VObjectVector& values);
  /// @}

  /// Merges the target of `src` into the target of this value. Hashes merge by key and vectors by index, and members
  /// that are missing here are shared with `src`; nothing is ever removed. Otherwise `src` is assigned, if either side
  /// is nil, or both have one kind, or neither is a hash, vector or user-defined value. Returns the target.
  ///
  /// `src` may be part of this value. The reverse ends as well if `src` shares nothing within itself, but may make this
  /// value, or a part of it, contain itself: a cycle, which is the caller's to break (reset_hash, reset_vector).
  ///
  /// Works step by step: what was merged before a failure stays merged. Throws "VObject::merge: Won't merge disparate
  /// container and/or user-defined types.", std::bad_alloc and std::length_error as append() does.
  VObject& merge(const VObject& src);

  /// Makes `out` a patch: merge() of it into a deep copy of `a` gives `b`. Returns whether they differ; if not, `out`
  /// is nil and no patch.
  ///
  /// Two doubles differ where both their distance is greater than `epsilon` and the greater one is greater than the sum
  /// of the lesser and `epsilon`, each in double arithmetic. An infinite distance is greater than every finite
  /// `epsilon`. A NaN differs from no double, and a NaN for `epsilon` lets none differ. The order of `a` and `b` makes
  /// no difference.
  ///
  /// `structural` is set when a patch cannot say it: a key went away, or a hash that is an element of a vector changed.
  /// `parent_tag` is the kind of what holds `a`: with DT_VECTOR a change of a hash is structural. Without being
  /// structural, a patch fails to give `b` where a vector became shorter, where the kinds differ and one is a hash,
  /// vector or user-defined value and neither is nil, and where there are NaNs.
  ///
  /// `out` becomes nil first (its target, if it is a reference). It may be part of `a` or of `b`, which then differ
  /// from what they were; inside of `b` it may come to contain itself. The patch shares with `b`, not with `a`.
  /// Throws std::bad_alloc; `out` is then nil. REQUIRES: user-defined values that are compared hold objects.
  /// @{
  static bool diff(const VObject& a, VObject& out, const VObject& b, bool& structural, int parent_tag, double epsilon);
  static bool diff(const VObject& a, VObject& out, const VObject& b, int parent_tag, double epsilon);
  /// @}

  /// The id of the symbol of that name, which is made if it is new. Ids start at 1. Thread-safe.
  /// Throw std::bad_alloc; the table is then as before.
  /// @{
  static uint32_t intern_string(const string_ref& name);
  static uint32_t intern(const char* name);
  static uint32_t intern(const std::string& name);
  /// @}

  /// The symbol's name, which never changes and lives as long as the process. Null for an id that was never given to a
  /// name but has been rendered or written. Thread-safe.
  /// Throws "VObject::sym_lookup: supplied symbol value not found in map".
  static VObjectString* sym_lookup(uint32_t id);

  /// Writes this value at the buffer's position. At most `maxdepth` levels of nesting, this value being the first. A
  /// value that fails stays partly written. Throws, besides what writing throws (PacketBuf::claim):
  /// - "VObject::serialize: maxdepth exceeded"
  /// - "VObject::serialize: serialization of DT_UDT not yet supported"
  /// - "VObject::serialize: serialization of DT_REF not yet supported"; a reference is not followed
  /// - "VObject::serialize: internal error: SYMBOL symbal points to NULL symbol data", for an id without a name
  /// - "VObject::serialize: unrecognized data type"
  void serialize(PROTO::PacketBuf& buf, uint32_t maxdepth) const;

  /// Reads one value at the buffer's position into `out` itself, whatever `out` was, and moves the position behind it.
  /// No value may start at or behind the index `end`. Symbols are interned, or come as strings.
  ///
  /// The value is checked before anything is built, and `out` stays as it was if the check fails; only a hash key that
  /// is no string, a string that leaves the payload and the end of memory are found later, and leave `out` partly
  /// built. Either way the position is where reading stopped.
  ///
  /// Each level of nesting takes up to 260 bytes of machine stack; `maxdepth` must not allow more than the thread's
  /// stack holds. A limit of 2^31 or more counts as negative, and nothing passes it. Throws std::bad_alloc and:
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

  /// Prints what render() makes of the value. For VObjects only, not for what converts to one.
  friend VORN_API std::ostream& operator<<(std::ostream& out, const VObject& v);

 private:
  friend struct VObjectInternal;

  explicit VObject(VObjectPayload&& payload) noexcept : payload_(std::move(payload)) {}

  /// The end of the chain of references.
  VObject& target() noexcept {
    VObject* v = this;
    while (v->type() == DT_REF) {
      v = v->payload_.referent().get();
      assert(v != nullptr);
    }
    return *v;
  }
  const VObject& target() const noexcept { return const_cast<VObject*>(this)->target(); }

  /// Where a string, hash, vector, user-defined object or reference goes; null: nowhere, since `src` is met on the way.
  VObject* shared_destination(const VObject& src) noexcept;
  void assign_shared(const VObject& src) noexcept;
  void move_shared(VObject& src) noexcept;

  VObjectPayload payload_;
};

static_assert(sizeof(void*) != 8 || sizeof(VObject) == 24, "payload word, shared count, tag");

/// Whether the targets have one kind and equal contents: integers, doubles and booleans never equal each other, NaN
/// equals nothing, hashes and vectors compare by element. A value always equals itself.
/// REQUIRES: user-defined values that are compared hold objects.
VORN_API bool operator==(const VObject& a, const VObject& b);
/// The opposite.
inline bool operator!=(const VObject& a, const VObject& b) {
  return !(a == b);
}

/// The same as dst.merge(src).
VORN_API VObject& merge(VObject& dst, const VObject& src);

/// Makes `target` an independent copy of `source`, by way of the encoding, and returns it. `target` becomes nil first
/// (the end of its chain, if it is a reference), then itself the copy; with `source` as its own target the result is
/// nil. At most 64 levels. Throws what serialize() and deserialize() throw; `target` is then nil or partly built.
VORN_API VObject& deep_copy(const VObject& source, VObject& target);

/// The target as a double, exactly: to_i64() truncates one, and render() rounds it. An integer beyond 2^53 is rounded
/// to the nearest double. What a peer sent may be NaN or infinite. Throws "to_double: neither an integer nor a double".
VORN_API double to_double(const VObject& v);

}  // namespace VORN
