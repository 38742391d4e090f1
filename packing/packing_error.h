/// How packing and unpacking fail.
#pragma once

#include "proto/export.h"
#include "proto/vorn_runtime_error.h"

namespace VORN {
namespace PACKING {

/// What all errors of values are. Wrong registrations and numbers out of range are the program's own:
/// std::invalid_argument and std::out_of_range.
class VORN_API Error : public VornRuntimeError {
 public:
  using VornRuntimeError::VornRuntimeError;
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  Error(const Error&) = default;
  Error& operator=(const Error&) = default;
  /// @}
  ~Error() override;
};

/// A class, or a tag from a peer, that no type is registered for.
class VORN_API UnknownType : public Error {
 public:
  using Error::Error;
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  UnknownType(const UnknownType&) = default;
  UnknownType& operator=(const UnknownType&) = default;
  /// @}
  ~UnknownType() override;
};

/// The peer's value is not what packing makes: a tag beside other keys, or one whose type cannot be built from what
/// stands behind it. What the type threw is nested: std::rethrow_if_nested.
class VORN_API Malformed : public Error {
 public:
  using Error::Error;
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  Malformed(const Malformed&) = default;
  Malformed& operator=(const Malformed&) = default;
  /// @}
  ~Malformed() override;
};

/// More than MAX_DEPTH levels, or a value that contains itself.
class VORN_API TooDeep : public Error {
 public:
  using Error::Error;
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  TooDeep(const TooDeep&) = default;
  TooDeep& operator=(const TooDeep&) = default;
  /// @}
  ~TooDeep() override;
};

}  // namespace PACKING
}  // namespace VORN
