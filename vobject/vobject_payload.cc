#include "vobject/vobject_payload.h"

#include "vobject/vobject.h"

namespace VORN {

/// REQUIRES: nothing is held that would have to be released.
void VObjectPayload::retain(const VObjectPayload& src) noexcept {
  assert(!is_shared_type(tag_));
  switch (src.tag_) {
    case DT_STR:
    case DT_HASH:
    case DT_VECTOR:
    case DT_UDT: new (&shared_) boost::shared_ptr<void>(src.shared_); break;
    case DT_REF: new (&ref_) boost::shared_ptr<VObject>(src.ref_); break;
    default: scalar_ = src.scalar_; break;
  }
  tag_ = src.tag_;
}

void VObjectPayload::release() noexcept {
  switch (tag_) {
    case DT_STR:
    case DT_HASH:
    case DT_VECTOR:
    case DT_UDT: shared_.~shared_ptr(); break;
    case DT_REF: ref_.~shared_ptr(); break;
    default: break;  // an unknown tag owns nothing
  }
}

void VObjectPayload::replace(VObjectPayload&& contents) noexcept {
  const VObjectPayload old(std::move(*this));
  steal(contents);
}

}  // namespace VORN
