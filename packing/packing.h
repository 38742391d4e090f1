/// Carries values that the wire has no type for: as a hash whose only key is the name of their type behind a tilde.
/// Each side registers the types that it sends and accepts; nothing is built that was not registered.
///
///   struct Point { int64_t x, y; };                // and ==
///   Packing packing{ReadyMade::integer, ReadyMade::time};
///   packing.structure("point", &Point::x, &Point::y);
///
///   VObject message = VObject::new_vector();
///   message.append(variant_of(Point{1, 2})).append(variant_of(Time()));
///   packing.pack(message);                         // [{"~point"=>[1, 2]}, {"~time"=>[0, 0, 0, nil]}]
///   packing.unpack(packing.pack(message));         // equals message
///
/// docs/wire/packing.md has the rules, which are those of VORN::Packing in Ruby.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeindex>
#include <typeinfo>
#include <utility>

#include "packing/packable.h"
#include "packing/packed_number.h"
#include "packing/packed_time.h"
#include "packing/packing_error.h"
#include "proto/export.h"
#include "proto/value_wire.h"
#include "vobject/vobject.h"

namespace VORN {
namespace PACKING {

/// Levels of a packed value, scalars included: as many as the wire's.
constexpr uint32_t MAX_DEPTH = PROTO::DEFAULT_MAX_DEPTH;

/// Types that need no functions.
enum class ReadyMade {
  integer,  ///< integers that do not fit 32 bits, as Ruby writes them; without it, 64 bits are sent as they are
  time,     ///< Time
  date,     ///< Date
  decimal,  ///< Decimal
  rational  ///< Rational
};

/// A table of types. It does no input or output. As long as nobody registers a type, threads may share it.
// Its members are exported one by one: the lambdas of the templates are no part of the library's interface.
class Packing {
 public:
  /// With these types. Throws std::invalid_argument for one that is named twice, and std::bad_alloc.
  VORN_API Packing(std::initializer_list<ReadyMade> ready_made);
  /// With none. An argument with a default would do, but g++ 10 then takes no list in braces.
  Packing() : Packing(std::initializer_list<ReadyMade>{}) {}
  VORN_API ~Packing();
  /// Copy and move the table. Copying throws std::bad_alloc.
  /// @{
  VORN_API Packing(const Packing&);
  VORN_API Packing(Packing&&) noexcept;
  VORN_API Packing& operator=(const Packing&);
  VORN_API Packing& operator=(Packing&&) noexcept;
  /// @}

  /// Registers T: objects of exactly this type are packed.
  ///
  /// - tag: its name on the wire: printable ASCII, without blanks and tildes
  /// - pack: called with the object, returns what the wire or a registered type can carry
  /// - unpack: called with what has arrived, unpacked already, returns the object. A peer may have sent anything there;
  ///   get() refuses what is of another type. What it throws becomes Malformed, unless it is an Error, std::bad_alloc,
  ///   or not derived from std::exception
  ///
  /// Returns this packing, which is unchanged if it throws: std::bad_alloc, and std::invalid_argument
  /// - "a tag is printable ASCII without blanks and tildes"
  /// - "the tag TAG is taken"
  /// - "the class TYPE has a type", TYPE being its name in the compiler's own form
  /// - "a type without a function", for an empty one
  template <typename T>
  Packing& type(std::string_view tag, std::function<VObject(const T&)> pack, std::function<T(const VObject&)> unpack) {
    static_assert(std::is_same<T, std::decay_t<T>>::value, "a type, not a reference to it");
    static_assert(!detail::IS_PLAIN<T> && !detail::IsOptional<T>::value, "the wire carries it");
    Packer packer;
    if (pack) {
      packer = [pack = std::move(pack)](const AnyObject& object) {
        return pack(static_cast<const ObjectOf<T>&>(object).object());
      };
    }
    Unpacker unpacker;
    if (unpack) {
      unpacker = [unpack = std::move(unpack)](const VObject& body) { return variant_of<T>(unpack(body)); };
    }
    return add(tag, typeid(T), std::move(packer), std::move(unpacker));
  }

  /// Registers a struct, which is sent as a vector of its members, in this order. What arrives has to have as many, and
  /// get() has to find a value of each one's type. REQUIRES: T can be made without arguments. Returns and throws as
  /// type() does.
  template <typename T, typename... Members>
  Packing& structure(std::string_view tag, Members T::*... members) {
    return type<T>(
        tag,
        [members...](const T& object) {
          VObject body = VObject::new_vector();
          (body.append(variant_of(object.*members)), ...);
          return body;
        },
        [members...](const VObject& body) {
          T object{};
          size_t index = 0;
          check_members(body, sizeof...(Members));
          ((object.*members = get<Members>(body.getvec()[index++])), ...);
          return object;
        });
  }

  /// The value as the wire can carry it. Hashes and vectors are copied, everything else is shared. A key that begins
  /// with a tilde, as tags do, gets another one. Throws std::bad_alloc, what a type's `pack` throws, and
  /// - UnknownType "no type is registered for the class TYPE", "... for a user-defined value without an object",
  ///   "... for references"
  /// - TooDeep "more than 64 levels"
  /// - std::out_of_range "a time that cannot be packed" for parts out of their range, and what Date::days() throws
  VORN_API VObject pack(const VObject& value) const;

  /// The value that was packed, from what a peer has sent: a new one, with objects in the places of packed values.
  /// Hashes and vectors are copied, everything else is shared. Throws std::bad_alloc, and
  /// - UnknownType "no type is registered for the tag TAG", TAG being shown up to 40 bytes
  /// - Malformed "the tag TAG stands beside other keys", "cannot unpack the type TAG"
  /// - TooDeep "more than 64 levels"
  VORN_API VObject unpack(const VObject& value) const;

 private:
  using Packer = std::function<VObject(const AnyObject&)>;
  using Unpacker = std::function<VObject(const VObject&)>;
  struct Type {
    std::string key;
    Packer pack;
    Unpacker unpack;
  };

  void add_ready_made(ReadyMade name);
  VORN_API static void check_members(const VObject& body, size_t count);
  VORN_API Packing& add(std::string_view tag, const std::type_info& type, Packer pack, Unpacker unpack);
  const Type& type_of(const VObject& value) const;
  VObject pack_value(const VObject& value, uint32_t levels) const;
  VObject pack_hash(const VObjectHash& hash, uint32_t levels) const;
  VObject tagged(const Type& type, const VObject& body, uint32_t levels) const;
  VObject unpack_value(const VObject& value, uint32_t levels) const;
  VObject unpack_hash(const VObjectHash& hash, uint32_t levels) const;
  VObject build(std::string_view tag, size_t keys, const VObject& body, uint32_t levels) const;

  std::map<std::string, std::shared_ptr<const Type>, std::less<>> by_tag_;
  std::map<std::type_index, std::shared_ptr<const Type>> by_type_;
};

}  // namespace PACKING
}  // namespace VORN
