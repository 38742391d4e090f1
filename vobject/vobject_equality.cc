#include "vobject/vobject.h"

namespace VORN {

bool operator==(const VObject& a, const VObject& b) {
  const VObject* x = &a;
  const VObject* y = &b;
  while (x != y) {
    if (x->tag_ == DT_REF) {
      x = x->ref_.get();
    } else if (y->tag_ == DT_REF) {
      y = y->ref_.get();
    } else {
      return VObject::equal(*x, *y);
    }
  }
  return true;
}

/// REQUIRES: neither is a reference.
bool VObject::equal(const VObject& a, const VObject& b) {
  if (a.tag_ != b.tag_) return false;
  switch (a.tag_) {
    case DT_NIL: return true;
    case DT_INT: return a.inline_.word == b.inline_.word;
    case DT_DOUBLE: return a.as_double() == b.as_double();
    case DT_BOOL: return (a.inline_.word != 0) == (b.inline_.word != 0);
    case DT_SYMBOL: return a.as_symbol() == b.as_symbol();
    case DT_STR: return a.as_str() == b.as_str();
    case DT_UDT: return a.as_udt()->udt_equals(*b.as_udt());
    case DT_HASH: {
      const VObjectHash& x = a.as_hash();
      const VObjectHash& y = b.as_hash();
      if (&x == &y) return true;  // each member is the same object as its counterpart
      if (x.size() != y.size()) return false;
      for (auto i = x.begin(), j = y.begin(); i != x.end(); ++i, ++j) {
        if (i->first != j->first || i->second != j->second) return false;
      }
      return true;
    }
    case DT_VECTOR: {
      const VObjectVector& x = a.as_vec();
      const VObjectVector& y = b.as_vec();
      if (&x == &y) return true;
      if (x.size() != y.size()) return false;
      for (size_t i = 0; i < x.size(); ++i) {
        if (x[i] != y[i]) return false;
      }
      return true;
    }
    default: return false;
  }
}

}  // namespace VORN
