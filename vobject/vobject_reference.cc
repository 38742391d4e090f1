/// References: making, reading and dropping them.
#include "proto/vorn_runtime_error.h"
#include "vobject/vobject.h"

namespace VORN {

VObject& VObject::operator=(const boost::shared_ptr<VObject>& referent) {
  const boost::shared_ptr<VObject>* end = &referent;
  for (;;) {
    const VObject* const v = end->get();
    if (v == nullptr) throw VornRuntimeError("VObject::operator=: won't assign null reference");
    if (v == this) throw VornRuntimeError("VObject::operator=: won't assign reference to self");
    if (v->type() != DT_REF) break;
    end = &v->payload_.referent();
  }
  payload_.replace(VObjectPayload(*end));
  return *this;
}

uint8_t VObject::get_ref_type() const {
  if (type() != DT_REF) throw VornRuntimeError("VObject::get_ref_type called on non-reference");
  return target().type();
}

boost::shared_ptr<VObject>& VObject::getref() {
  if (type() != DT_REF) throw VornRuntimeError("VObject::getref called on non-reference");
  return payload_.referent();
}

const boost::shared_ptr<VObject>& VObject::getref() const {
  return const_cast<VObject*>(this)->getref();
}

void VObject::unref() {
  if (type() != DT_REF) throw VornRuntimeError("VObject::unref called on non-reference");
  payload_.set_scalar(DT_NIL, 0);
}

}  // namespace VORN
