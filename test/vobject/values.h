/// What the tests of variants share: failures by their text, user-defined objects, random trees.
#pragma once

#include <boost/make_shared.hpp>
#include <cmath>
#include <cstddef>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "proto/packet_buf.h"
#include "proto/vorn_runtime_error.h"
#include "test/support/hex.h"
#include "vobject/render.h"
#include "vobject/vobject.h"

/// The statement fails with VornRuntimeError of exactly this text.
#define EXPECT_FAILS(text, statement)                          \
  do {                                                         \
    try {                                                      \
      statement;                                               \
      ADD_FAILURE() << "nothing thrown, expected: " << (text); \
    } catch (const VORN::VornRuntimeError& failure) {          \
      EXPECT_STREQ((text), failure.what());                    \
    }                                                          \
  } while (false)

namespace VORN {

/// How GoogleTest shows a value.
inline void PrintTo(const VObject& v, std::ostream* out) {
  std::string text;
  render(v, text);
  *out << text;
}

}  // namespace VORN

namespace vorn_test {

using VORN::VObject;
using VORN::VObjectUDT;
using VORN::VObjectVector;

inline std::string rendered(const VObject& v) {
  std::string text;
  VORN::render(v, text);
  return text;
}

inline VObject make_ref(const VObject& referent) {
  VObject ref;
  ref = boost::make_shared<VObject>(referent);
  return ref;
}

inline VObject vec(std::initializer_list<VObject> elements) {
  return VObject(VObjectVector(elements));
}

inline VObject hash(std::initializer_list<std::pair<const char*, VObject>> members) {
  VObject v = VObject::new_hash();
  for (const auto& member : members) v.store(member.first, member.second);
  return v;
}

/// Equal when the numbers are.
class Number : public VObjectUDT {
 public:
  explicit Number(int n, int* destroyed = nullptr) : n_(n), destroyed_(destroyed) {}
  ~Number() override {
    if (destroyed_ != nullptr) ++*destroyed_;
  }
  bool udt_equals(const VObjectUDT& other) const override {
    const auto* number = dynamic_cast<const Number*>(&other);
    return number != nullptr && number->n_ == n_;
  }
  void udt_render(std::string& out) const override { out += "#" + std::to_string(n_); }

 private:
  int n_;
  int* destroyed_;
};

inline boost::shared_ptr<VObjectUDT> number(int n, int* destroyed = nullptr) {
  return boost::make_shared<Number>(n, destroyed);
}

/// The encoding of a value, at most 64 levels.
inline std::string encoded(const VObject& v) {
  VORN::PROTO::PacketBuf buf;
  v.serialize(buf, 64);
  return buf.data();
}

/// The address of what a value shares with its copies; null for a kind that shares nothing.
inline const void* storage_of(const VObject& v) {
  switch (v.type()) {
    case VORN::DT_STR: return &v.getstr();
    case VORN::DT_HASH: return &v.gethash();
    case VORN::DT_VECTOR: return &v.getvec();
    case VORN::DT_UDT: return v.udt();
    case VORN::DT_REF: return v.getref().get();
    default: return nullptr;
  }
}

/// Writes the tag behind the library's back.
inline void force_tag(VObject& v, unsigned char tag) {
  struct Layout {
    struct {
      uint64_t word;
      void* count;
    } payload;
    unsigned char tag;
  };
  static_assert(sizeof(Layout) == sizeof(VObject), "payload word, shared count, tag");
  reinterpret_cast<unsigned char*>(&v)[offsetof(Layout, tag)] = tag;
}

/// Random trees from small alphabets, so that equal members and equal keys are common. Never NaN.
class RandomValues {
 public:
  explicit RandomValues(unsigned seed) : random_(seed) {}

  unsigned below(unsigned n) { return static_cast<unsigned>(random_() % n); }

  const char* key() {
    static const char* const keys[] = {"", "a", "b", "ab", "c", "\xE9"};
    return keys[below(6)];
  }

  VObject scalar() {
    static const double doubles[] = {0.0, -0.0, 1.0, 1.05, -1e300, HUGE_VAL, -HUGE_VAL};
    static const char* const names[] = {"", "red", "green", "two words"};
    switch (below(6)) {
      case 0: return VObject();
      case 1: return VObject(static_cast<int64_t>(below(4)) - 1);
      case 2: return VObject(doubles[below(7)]);
      case 3: return VObject(below(2) == 0);
      case 4: {
        VObject symbol(names[below(4)]);
        symbol.intern();
        return symbol;
      }
      default: return VObject(names[below(4)]);
    }
  }

  /// `with_refs`: references and user-defined objects occur as well, which have no encoding.
  VObject value(unsigned depth, bool with_refs = false) {
    if (with_refs && below(12) == 0) {
      return below(4) == 0 ? VObject(number(static_cast<int>(below(2)))) : make_ref(value(depth, with_refs));
    }
    const unsigned kind = depth == 0 ? 0 : below(4);
    if (kind < 2) return scalar();
    const unsigned n = below(4);
    VObject v = kind == 2 ? VObject::new_hash() : VObject::new_vector();
    for (unsigned i = 0; i < n; ++i) {
      if (kind == 2) {
        v.store(key(), value(depth - 1, with_refs));
      } else {
        v.append(value(depth - 1, with_refs));
      }
    }
    return v;
  }

  /// Changes a little of a tree that shares nothing with another.
  void change(VObject& v, bool with_refs) {
    if (v.type() == VORN::DT_HASH && below(5) != 0) {
      VORN::VObjectHash& members = v.gethash();
      if (members.empty() || below(3) == 0) {
        v.store(key(), value(1, with_refs));
      } else if (below(6) == 0) {
        members.erase(members.begin());
      } else {
        auto member = members.begin();
        std::advance(member, below(static_cast<unsigned>(members.size())));
        change(member->second, with_refs);
      }
    } else if (v.type() == VORN::DT_VECTOR && below(5) != 0) {
      VObjectVector& elements = v.getvec();
      if (elements.empty() || below(3) == 0) {
        v.append(value(1, with_refs));
      } else if (below(6) == 0) {
        elements.pop_back();
      } else {
        change(elements[below(static_cast<unsigned>(elements.size()))], with_refs);
      }
    } else {
      v = value(1, with_refs);
    }
  }

 private:
  std::mt19937 random_;
};

}  // namespace vorn_test
