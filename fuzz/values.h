/// Variants in the targets: grown from an input, and compared bit for bit.
#pragma once

#include <boost/make_shared.hpp>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include "fuzz/input.h"
#include "proto/packet_buf.h"
#include "vobject/vobject.h"

namespace vorn_fuzz {

/// A user-defined object that equals those of the same number.
class Numbered : public VORN::VObjectUDT {
 public:
  explicit Numbered(unsigned number) : number_(number) {}
  bool udt_equals(const VORN::VObjectUDT& other) const override {
    return static_cast<const Numbered&>(other).number_ == number_;
  }
  void udt_render(std::string& out) const override { out += "<UDT:" + std::to_string(number_) + ">"; }

 private:
  unsigned number_;
};

inline VORN::VObject double_of(uint64_t bits) {
  double value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

inline VORN::VObject scalar(Input& in) {
  static const char* const names[] = {"", "red", "two words", "\x01\xFF\"\\"};
  switch (in.below(8)) {
    case 0: return VORN::VObject();
    case 1: return static_cast<int64_t>(in.number());
    case 2: return double_of(in.number() << 48);
    case 3: return double_of(in.word(8));
    case 4: return in.below(2) != 0;
    case 5: {
      VORN::VObject symbol(names[in.below(4)]);
      symbol.intern();
      return symbol;
    }
    default: return in.bytes(in.byte() % 40);
  }
}

/// At most `levels` levels. `with_all_kinds`: references and user-defined objects too, which have no
/// encoding.
inline VORN::VObject tree(Input& in, unsigned levels, bool with_all_kinds) {
  const unsigned kind = levels <= 1 || in.empty() ? 0 : in.below(with_all_kinds ? 10 : 8);
  if (kind < 4) return scalar(in);
  VORN::VObject v;
  if (kind < 6) {
    v.reset_hash();
    for (unsigned n = in.below(6); n > 0; --n) {
      const std::string key = in.bytes(in.below(3));
      v.gethash()[VORN::string_ref(key)] = tree(in, levels - 1, with_all_kinds);
    }
  } else if (kind < 8) {
    v.reset_vector(0);
    for (unsigned n = in.below(6); n > 0; --n) v.append(tree(in, levels - 1, with_all_kinds));
  } else if (kind == 8) {
    v = boost::make_shared<VORN::VObject>(tree(in, levels - 1, with_all_kinds));
  } else {
    v = boost::shared_ptr<VORN::VObjectUDT>(boost::make_shared<Numbered>(in.below(3)));
  }
  return v;
}

/// The levels that an encoding of the value takes.
inline uint32_t levels_of(const VORN::VObject& v) {
  uint32_t inside = 0;
  if (v.type() == VORN::DT_HASH) {
    for (const auto& member : v.gethash()) inside = std::max(inside, levels_of(member.second));
  } else if (v.type() == VORN::DT_VECTOR) {
    for (const VORN::VObject& element : v.getvec()) inside = std::max(inside, levels_of(element));
  }
  return 1 + inside;
}

/// The value's encoding. Two values without references and user-defined objects have the same one just when
/// they are the same bit for bit; equality says less, as it takes zeros of both signs for one and a NaN for
/// another.
inline std::string encoded(const VORN::VObject& v) {
  static VORN::PROTO::PacketBuf buf;
  buf.reset();
  v.serialize(buf, std::numeric_limits<int32_t>::max());
  return buf.data().substr(0, buf.pos());
}

}  // namespace vorn_fuzz
