#pragma once

#include "proto/vorn_exception.h"

namespace VORN {
namespace PROTO {

/// What the protocol cannot express: a payload that is too long for its frame's header layout.
class VORN_API VornProtoException : public VornException {
 public:
  using VornException::VornException;
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  VornProtoException(const VornProtoException&) = default;
  VornProtoException& operator=(const VornProtoException&) = default;
  /// @}
  ~VornProtoException() override;
};

}  // namespace PROTO
}  // namespace VORN
