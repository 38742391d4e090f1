/// Life and assignment.
#include "vobject/vobject.h"

#include <boost/make_shared.hpp>

namespace VORN {

namespace {

boost::shared_ptr<VObjectString> make_string(const char* text) {
  return text == nullptr ? boost::make_shared<VObjectString>() : boost::make_shared<VObjectString>(text);
}

}  // namespace

VObject::VObject(const char* text) : VObject(DT_STR, make_string(text)) {}

VObject::VObject(const char* bytes, size_t length)
    : VObject(DT_STR, boost::make_shared<VObjectString>(bytes, length)) {}

VObject::VObject(const std::string& bytes) : VObject(DT_STR, boost::make_shared<VObjectString>(bytes)) {}

VObject::VObject(const VObjectString& text) : VObject(text.c_str()) {}

VObject::VObject(const VObjectVector& elements)
    : VObject(DT_VECTOR, boost::make_shared<VObjectVector>(elements)) {}

VObject::VObject(const boost::shared_ptr<VObjectUDT>& object) noexcept
    : VObject(DT_UDT, boost::shared_ptr<void>(object)) {}

VObject VObject::new_hash() {
  return VObject(DT_HASH, boost::make_shared<VObjectHash>());
}

VObject VObject::new_vector(size_t n) {
  boost::shared_ptr<VObjectVector> elements = boost::make_shared<VObjectVector>();
  if (n != 0) elements->reserve(n);
  return VObject(DT_VECTOR, std::move(elements));
}

/// REQUIRES: this value holds nothing that must be dropped.
void VObject::share(const VObject& src) noexcept {
  switch (src.tag_) {
    case DT_STR:
    case DT_HASH:
    case DT_VECTOR:
    case DT_UDT: new (&shared_) boost::shared_ptr<void>(src.shared_); break;
    case DT_REF: new (&ref_) boost::shared_ptr<VObject>(src.ref_); break;
    default: inline_ = src.inline_; break;
  }
  tag_ = src.tag_;
}

void VObject::drop() noexcept {
  switch (tag_) {
    case DT_STR:
    case DT_HASH:
    case DT_VECTOR:
    case DT_UDT: shared_.~shared_ptr(); break;
    case DT_REF: ref_.~shared_ptr(); break;
    default: break;  // a tag that nobody knows owns nothing
  }
}

void VObject::replace(VObject&& contents) noexcept {
  const VObject old(std::move(*this));
  take(contents);
}

void VObject::assign_shared(const VObject& src) noexcept {
  VObject* dst = this;
  if (dst == &src) return;
  if (src.tag_ != DT_REF) {
    while (dst->tag_ == DT_REF) {
      dst = dst->ref_.get();
      if (dst == &src) return;
    }
  }
  // The share is taken first: what is overwritten may hold the last one, or `src` itself.
  dst->replace(VObject(src));
}

void VObject::move_shared(VObject& src) noexcept {
  VObject* dst = this;
  if (dst == &src) return;
  if (src.tag_ != DT_REF) {
    while (dst->tag_ == DT_REF) {
      dst = dst->ref_.get();
      if (dst == &src) return;
    }
  }
  dst->replace(std::move(src));
}

VObject& VObject::operator=(const char* text) {
  target().put_shared(DT_STR, make_string(text));
  return *this;
}

VObject& VObject::operator=(const std::string& bytes) {
  target().put_shared(DT_STR, boost::make_shared<VObjectString>(bytes));
  return *this;
}

VObject& VObject::operator=(const VObjectVector& elements) {
  target().put_shared(DT_VECTOR, boost::make_shared<VObjectVector>(elements));
  return *this;
}

VObject& VObject::operator=(const boost::shared_ptr<VObjectUDT>& object) noexcept {
  target().put_shared(DT_UDT, boost::shared_ptr<void>(object));
  return *this;
}

void VObject::set_nil() noexcept {
  target().put_inline(DT_NIL, 0);
}

void VObject::reset_hash() {
  VObject& t = target();
  if (t.tag_ == DT_HASH) {
    VObjectHash old;  // clearing in place could end this very value half way
    old.swap(t.as_hash());
  } else {
    t.put_shared(DT_HASH, boost::make_shared<VObjectHash>());
  }
}

void VObject::reset_vector(size_t reserve) {
  VObject& t = target();
  if (t.tag_ == DT_VECTOR) {
    const VObject held(t);  // likewise, and the storage is to be used again
    VObjectVector& elements = held.as_vec();
    if (reserve > elements.capacity()) {
      VObjectVector room;
      room.reserve(reserve);  // without the memory for it, nothing has changed
      elements.swap(room);
    } else {
      elements.clear();
    }
  } else {
    t.replace(new_vector(reserve));
  }
}

void VObject::reset_udt() noexcept {
  target().put_shared(DT_UDT, boost::shared_ptr<void>());
}

}  // namespace VORN
