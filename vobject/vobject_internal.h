/// How the sources of this folder that are no members of VObject come to its representation.
///
/// Not for programs that use the library: vobject.h has the operations.
#pragma once

#include "vobject/vobject.h"

namespace VORN {

/// The friend of VObject that sees its representation.
struct VObjectInternal {
  /// What the value itself holds, references not followed.
  /// @{
  static VObjectPayload& payload(VObject& v) { return v.payload_; }
  static const VObjectPayload& payload(const VObject& v) { return v.payload_; }
  /// @}
  /// The end of the chain of references.
  /// @{
  static VObject& target(VObject& v) { return v.target(); }
  static const VObject& target(const VObject& v) { return v.target(); }
  /// @}
};

}  // namespace VORN
