/// Objects of C++ types within variants: what a packing packs, and what unpacking gives.
///
///   VObject message = VObject::new_hash();
///   message.store("at", variant_of(Time::of(std::chrono::system_clock::now())));
///   message.store("id", 7);
///   const Time at = get<Time>(message.fetch("at"));    // throws if it is none
///   const int64_t id = get<int64_t>(message.fetch("id"));
///
/// Such an object is a user-defined value: it has no encoding, so the variant that holds it is packed before it is
/// sent. Text of it, for logs, is what render() makes of the packed value.
///
/// T may be any type that can be copied and compared with ==, and that is no pointer. Of these have a kind of their own
/// in variants: bool, integers, double, std::string, VObject itself, and Integer, unless it needs more than 64 bits. A
/// std::optional of one of all these is nil, or as what it contains.
#pragma once

#include <boost/smart_ptr/make_shared.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "packing/packed_number.h"
#include "proto/export.h"
#include "proto/vorn_runtime_error.h"
#include "vobject/vobject.h"

namespace VORN {
namespace PACKING {

/// An object of any type, as a variant holds it.
class VORN_API AnyObject : public VObjectUDT {
 public:
  ~AnyObject() override;
  /// The type of the object.
  virtual const std::type_info& type() const noexcept = 0;
  /// Appends "<OBJECT>".
  void udt_render(std::string& out) const override;

 private:
  template <typename T>
  friend class ObjectOf;
  AnyObject() = default;
};

/// An object of the type T.
template <typename T>
class ObjectOf final : public AnyObject {
 public:
  /// Holds a copy of it.
  explicit ObjectOf(T object) : object_(std::move(object)) {}
  /// The object.
  const T& object() const noexcept { return object_; }
  /// T.
  const std::type_info& type() const noexcept override { return typeid(T); }
  /// Whether the other one is of the same type, and equal.
  bool udt_equals(const VObjectUDT& other) const override {
    const T* const same = object_in(&other);
    return same != nullptr && object_ == *same;
  }
  /// The object, if this value holds one, and one of exactly this type; otherwise null. By the name of T: libraries of
  /// one program may each have a class ObjectOf<T>.
  static const T* object_in(const VObjectUDT* value) noexcept {
    const auto* const any = dynamic_cast<const AnyObject*>(value);
    if (any == nullptr || any->type() != typeid(T)) return nullptr;
    return &static_cast<const ObjectOf*>(any)->object_;
  }

 private:
  T object_;
};

/// What the contracts below need to know of a type.
namespace detail {

template <typename T>
struct IsOptional : std::false_type {};
template <typename T>
struct IsOptional<std::optional<T>> : std::true_type {};

/// Variants have a kind for it.
template <typename T>
constexpr bool IS_PLAIN = std::is_integral<T>::value || std::is_same<T, double>::value ||
                          std::is_same<T, std::string>::value || std::is_same<T, VObject>::value;

/// An integer, half of whose values variants have not.
template <typename T>
constexpr bool IS_WIDE = std::is_integral<T>::value&& std::is_unsigned<T>::value && sizeof(T) == sizeof(uint64_t);

/// Whether the integer is one of T.
template <typename T>
bool fits(int64_t number) {
  if constexpr (std::is_unsigned<T>::value) {
    return number >= 0 && static_cast<uint64_t>(number) <= std::numeric_limits<T>::max();
  } else {
    return number >= std::numeric_limits<T>::min() && number <= std::numeric_limits<T>::max();
  }
}

/// Throws "get: another kind of value".
[[noreturn]] VORN_API void refuse_kind();

/// A user-defined value that holds the object.
template <typename T>
VObject held(T object) {
  return boost::shared_ptr<VObjectUDT>(boost::make_shared<ObjectOf<T>>(std::move(object)));
}

}  // namespace detail

/// The value as a variant. Throws std::bad_alloc, and what copying T throws.
template <typename T>
VObject variant_of(const T& value) {
  if constexpr (detail::IsOptional<T>::value) {
    return value ? variant_of(*value) : VObject();
  } else if constexpr (detail::IS_WIDE<T>) {
    return value <= static_cast<uint64_t>(INT64_MAX) ? VObject(value) : detail::held(Integer(value));
  } else if constexpr (std::is_same<T, Integer>::value) {
    const std::optional<int64_t> number = value.to_i64();
    return number ? VObject(*number) : detail::held(value);
  } else if constexpr (detail::IS_PLAIN<T>) {
    return value;
  } else {
    return detail::held(value);
  }
}

/// The object in the variant, which lives as long as the variant's last sharer; null if the variant holds none of
/// exactly this type. A reference is followed.
template <typename T>
const T* get_if(const VObject& value) noexcept {
  return ObjectOf<T>::object_in(value.udt());
}

/// The variant's value. Nothing is converted, but for integers where a double or an Integer is asked for: what a peer
/// has sent is either of this type, or refused. Throws VornRuntimeError "get: another kind of value", for an integer
/// that does not fit too; std::bad_alloc, and what copying T throws. A reference is no value.
template <typename T>
T get(const VObject& value) {
  if constexpr (detail::IsOptional<T>::value) {
    if (value.type() == DT_NIL) return std::nullopt;
    return get<typename T::value_type>(value);
  } else if constexpr (std::is_same<T, VObject>::value) {
    return value;
  } else if constexpr (std::is_same<T, bool>::value) {
    if (value.type() != DT_BOOL) detail::refuse_kind();
    return value.to_bool();
  } else if constexpr (std::is_same<T, double>::value) {
    if (value.type() != DT_DOUBLE && value.type() != DT_INT) detail::refuse_kind();
    return to_double(value);
  } else if constexpr (std::is_same<T, std::string>::value) {
    if (value.type() != DT_STR) detail::refuse_kind();
    return value.getstr();
  } else if constexpr (std::is_integral<T>::value) {
    if (value.type() == DT_INT && detail::fits<T>(value.to_i64())) return static_cast<T>(value.to_i64());
    if constexpr (detail::IS_WIDE<T>) {
      const Integer* const large = value.type() == DT_UDT ? get_if<Integer>(value) : nullptr;
      const std::optional<uint64_t> number = large != nullptr ? large->to_u64() : std::nullopt;
      if (number) return *number;
    }
    detail::refuse_kind();
  } else {
    if constexpr (std::is_same<T, Integer>::value) {
      if (value.type() == DT_INT) return Integer(value.to_i64());
    }
    const T* const object = value.type() == DT_UDT ? get_if<T>(value) : nullptr;
    if (object == nullptr) detail::refuse_kind();
    return *object;
  }
}

}  // namespace PACKING
}  // namespace VORN
