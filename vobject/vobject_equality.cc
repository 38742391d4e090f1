#include <cassert>

#include "vobject/vobject_internal.h"

namespace VORN {

namespace {

/// REQUIRES: neither is a reference, and user-defined values hold objects.
bool equal(const VObjectPayload& a, const VObjectPayload& b) {
  assert(a.tag() != DT_REF && b.tag() != DT_REF);
  if (a.tag() != b.tag()) return false;
  switch (a.tag()) {
    case DT_NIL: return true;
    case DT_INT: return a.integer() == b.integer();
    case DT_DOUBLE: return a.real() == b.real();
    case DT_BOOL: return a.boolean() == b.boolean();
    case DT_SYMBOL: return a.symbol() == b.symbol();
    case DT_STR: return a.str() == b.str();
    case DT_UDT: assert(a.udt() != nullptr && b.udt() != nullptr); return a.udt()->udt_equals(*b.udt());
    case DT_HASH: {
      const VObjectHash& x = a.hash();
      const VObjectHash& y = b.hash();
      if (&x == &y) return true;  // each member is the same object as its counterpart
      if (x.size() != y.size()) return false;
      for (auto i = x.begin(), j = y.begin(); i != x.end(); ++i, ++j) {
        if (i->first != j->first || i->second != j->second) return false;
      }
      return true;
    }
    case DT_VECTOR: {
      const VObjectVector& x = a.vec();
      const VObjectVector& y = b.vec();
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

}  // namespace

bool operator==(const VObject& a, const VObject& b) {
  const VObject* x = &a;
  const VObject* y = &b;
  while (x != y) {
    const VObjectPayload& left = VObjectInternal::payload(*x);
    const VObjectPayload& right = VObjectInternal::payload(*y);
    if (left.tag() == DT_REF) {
      x = left.referent().get();
    } else if (right.tag() == DT_REF) {
      y = right.referent().get();
    } else {
      return equal(left, right);
    }
  }
  return true;
}

}  // namespace VORN
