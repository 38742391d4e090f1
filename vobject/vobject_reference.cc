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
    if (v->tag_ != DT_REF) break;
    end = &v->ref_;
  }
  VObject reference;
  new (&reference.ref_) boost::shared_ptr<VObject>(*end);
  reference.tag_ = DT_REF;
  replace(std::move(reference));
  return *this;
}

uint8_t VObject::get_ref_type() const {
  if (tag_ != DT_REF) throw VornRuntimeError("VObject::get_ref_type called on non-reference");
  return target().tag_;
}

boost::shared_ptr<VObject>& VObject::getref() {
  if (tag_ != DT_REF) throw VornRuntimeError("VObject::getref called on non-reference");
  return ref_;
}

const boost::shared_ptr<VObject>& VObject::getref() const {
  return const_cast<VObject*>(this)->getref();
}

void VObject::unref() {
  if (tag_ != DT_REF) throw VornRuntimeError("VObject::unref called on non-reference");
  put_inline(DT_NIL, 0);
}

}  // namespace VORN
