#pragma once

#include <string>

#include "proto/export.h"

namespace VORN {

/// The base of user-defined objects that variants can hold. The library never makes one; it compares them,
/// renders them and releases its shares of them.
class VORN_API VObjectUDT {
 public:
  virtual ~VObjectUDT() = default;

  /// Whether this object equals `other`, which may be of any derived class.
  virtual bool udt_equals(const VObjectUDT& other) const = 0;

  /// Appends a text form to `out`, in which other text may stand already.
  virtual void udt_render(std::string& out) const = 0;
};

}  // namespace VORN
