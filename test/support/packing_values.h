#pragma once

#include <cstdint>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "packing/packing.h"
#include "test/support/packing_notation.h"

namespace vorn_test {

/// Random values that look like packed ones, above all, with all types of table_packing(). The same ones whatever the
/// compiler, which may evaluate the arguments of a call in any order.
class PackingValues {
 public:
  explicit PackingValues(uint32_t seed) : engine_(seed) {}

  VORN::VObject next() { return value(5); }

 private:
  VORN::VObject value(int levels) {
    switch (levels == 0 ? 9 : below(10)) {
      case 0:
      case 1: {
        VORN::VObject vector = VORN::VObject::new_vector();
        for (uint32_t n = below(4); n > 0; --n) vector.append(value(levels - 1));
        return vector;
      }
      case 2: {
        VORN::VObject hash = VORN::VObject::new_hash();
        store(hash, levels);
        return hash;
      }
      case 3:
      case 4: {
        VORN::VObject hash = VORN::VObject::new_hash();
        for (uint32_t n = below(4); n > 0; --n) store(hash, levels);
        return hash;
      }
      case 5: return VORN::PACKING::variant_of(Point{value(levels - 1), value(levels - 1)});
      default: return scalar();
    }
  }

  void store(VORN::VObject& hash, int levels) {
    const std::string name = key();
    hash.store(name, value(levels - 1));
  }

  uint32_t below(uint32_t n) { return static_cast<uint32_t>(engine_() % n); }

  std::string key() {
    static const std::vector<std::string> keys = {
        "~", "~~",   "~time", "~~time", "~integer", "~point", "~none", "a",
        "",  "\x7F", "~\xFF", "\xFE~",  "}",        "~}",     "~~~",   std::string("~\0", 2)};
    return keys[below(static_cast<uint32_t>(keys.size()))];
  }

  int64_t integer() { return static_cast<int64_t>(engine_()) >> below(64); }

  /// Reduced, as Ruby has them.
  VORN::PACKING::Rational rational() {
    const int64_t numerator = integer() / 2;
    const int64_t denominator = 1 + static_cast<int64_t>(below(1U << 31));
    const int64_t divisor = std::gcd(numerator, denominator);
    return {numerator / divisor, denominator / divisor};
  }

  VORN::VObject scalar() {
    switch (below(10)) {
      case 0: return VORN::VObject();
      case 1: return VORN::VObject(below(2) == 0);
      case 2: return VORN::VObject(integer());
      case 3: {
        std::string digits = std::to_string(engine_());
        digits += std::to_string(engine_());
        return VORN::PACKING::variant_of(VORN::PACKING::Integer(digits));
      }
      case 4: return VORN::VObject(static_cast<double>(integer()));
      case 5: return VORN::VObject(key());
      case 6: return VORN::PACKING::variant_of(VORN::PACKING::Date::of_days(static_cast<int32_t>(integer())));
      case 7: {
        VORN::PACKING::Time time;
        time.seconds = integer() % (86400LL << 31);
        time.nanosecond = static_cast<int32_t>(below(1000000000));
        if (below(2) == 0) time.offset = static_cast<int32_t>(below(172799)) - 86399;
        return VORN::PACKING::variant_of(time);
      }
      case 8: return VORN::PACKING::variant_of(rational());
      default: {
        std::string digits = std::to_string(integer()) + "e";
        digits += std::to_string(below(50));
        return VORN::PACKING::variant_of(VORN::PACKING::Decimal(digits));
      }
    }
  }

  std::mt19937_64 engine_;
};

}  // namespace vorn_test
