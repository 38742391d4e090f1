#include "packing/packable.h"

namespace VORN {
namespace PACKING {

// Out of line, so that the class has one copy of its type information.
AnyObject::~AnyObject() = default;

void AnyObject::udt_render(std::string& out) const {
  out += "<OBJECT>";
}

void detail::refuse_kind() {
  throw VornRuntimeError("get: another kind of value");
}

}  // namespace PACKING
}  // namespace VORN
