#pragma once

#include "proto/vorn_exception.h"

namespace VORN {

/// Misuse or inconsistency: every failure that the library detects, except a payload that is too long for its
/// frame (VornProtoException).
class VORN_API VornRuntimeError : public VornException {
 public:
  using VornException::VornException;
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  VornRuntimeError(const VornRuntimeError&) = default;
  VornRuntimeError& operator=(const VornRuntimeError&) = default;
  /// @}
  ~VornRuntimeError() override;
};

}  // namespace VORN
