/// Life and assignment.
#include "vobject/vobject.h"

#include <boost/make_shared.hpp>

namespace VORN {

namespace {

boost::shared_ptr<VObjectString> make_string(const char* text) {
  return text == nullptr ? boost::make_shared<VObjectString>() : boost::make_shared<VObjectString>(text);
}

}  // namespace

VObject::VObject(const char* text) : payload_(DT_STR, make_string(text)) {}

VObject::VObject(const char* bytes, size_t length)
    : payload_(DT_STR, boost::make_shared<VObjectString>(bytes, length)) {}

VObject::VObject(const std::string& bytes) : payload_(DT_STR, boost::make_shared<VObjectString>(bytes)) {}

VObject::VObject(std::string_view bytes) : payload_(DT_STR, boost::make_shared<VObjectString>(std::string(bytes))) {}

VObject::VObject(const VObjectString& text) : VObject(text.c_str()) {}

VObject::VObject(const VObjectVector& elements) : payload_(DT_VECTOR, boost::make_shared<VObjectVector>(elements)) {}

VObject::VObject(const boost::shared_ptr<VObjectUDT>& object) noexcept
    : payload_(DT_UDT, boost::shared_ptr<void>(object)) {}

VObject VObject::new_hash() {
  return VObject(VObjectPayload(DT_HASH, boost::make_shared<VObjectHash>()));
}

VObject VObject::new_vector(size_t n) {
  boost::shared_ptr<VObjectVector> elements = boost::make_shared<VObjectVector>();
  if (n != 0) elements->reserve(n);
  return VObject(VObjectPayload(DT_VECTOR, std::move(elements)));
}

VObject* VObject::shared_destination(const VObject& src) noexcept {
  VObject* v = this;
  if (src.type() != DT_REF) {
    while (v != &src && v->type() == DT_REF) v = v->payload_.referent().get();
  }
  return v == &src ? nullptr : v;
}

void VObject::assign_shared(const VObject& src) noexcept {
  // The share is taken first: what is overwritten may hold the last one, or `src` itself.
  if (VObject* const v = shared_destination(src)) v->payload_.replace(VObjectPayload(src.payload_));
}

void VObject::move_shared(VObject& src) noexcept {
  if (VObject* const v = shared_destination(src)) v->payload_.replace(std::move(src.payload_));
}

VObject& VObject::operator=(const char* text) {
  target().payload_.replace({DT_STR, make_string(text)});
  return *this;
}

VObject& VObject::operator=(const std::string& bytes) {
  target().payload_.replace({DT_STR, boost::make_shared<VObjectString>(bytes)});
  return *this;
}

VObject& VObject::operator=(const VObjectVector& elements) {
  target().payload_.replace({DT_VECTOR, boost::make_shared<VObjectVector>(elements)});
  return *this;
}

VObject& VObject::operator=(const boost::shared_ptr<VObjectUDT>& object) noexcept {
  target().payload_.replace({DT_UDT, boost::shared_ptr<void>(object)});
  return *this;
}

void VObject::set_nil() noexcept {
  target().payload_.set_scalar(DT_NIL, 0);
}

void VObject::reset_hash() {
  VObject& t = target();
  if (t.type() == DT_HASH) {
    VObjectHash old;  // clearing in place may destroy this value half way
    old.swap(t.payload_.hash());
  } else {
    t.payload_.replace({DT_HASH, boost::make_shared<VObjectHash>()});
  }
}

void VObject::reset_vector(size_t reserve) {
  VObject& t = target();
  if (t.type() == DT_VECTOR) {
    const VObject held(t);  // emptying may destroy this value; its storage is reused
    VObjectVector& elements = held.payload_.vec();
    if (reserve > elements.capacity()) {
      VObjectVector room;
      room.reserve(reserve);  // if this throws, nothing has changed
      elements.swap(room);
    } else {
      elements.clear();
    }
  } else {
    t.payload_.replace(std::move(new_vector(reserve).payload_));
  }
}

void VObject::reset_udt() noexcept {
  target().payload_.replace({DT_UDT, boost::shared_ptr<void>()});
}

}  // namespace VORN
