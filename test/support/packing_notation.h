/// The types that the rows of test/vectors/packing.txt need, and how these are written down there.
#pragma once

#include <stdexcept>
#include <string>

#include "packing/packing.h"
#include "test/support/variant_notation.h"

namespace vorn_test {

struct Point {
  VORN::VObject x;
  VORN::VObject y;
  bool operator==(const Point& other) const { return x == other.x && y == other.y; }
};

inline const VORN::PACKING::Packing& table_packing() {
  using VORN::PACKING::ReadyMade;
  static const VORN::PACKING::Packing packing = [] {
    VORN::PACKING::Packing types{ReadyMade::integer, ReadyMade::time, ReadyMade::date, ReadyMade::decimal,
                                 ReadyMade::rational};
    types.structure("point", &Point::x, &Point::y);
    return types;
  }();
  return packing;
}

inline std::string packing_notation_of(const VORN::VObject& value) {
  using namespace VORN::PACKING;
  return notation_of(value, [](const VORN::VObject& other) -> std::string {
    if (const auto* integer = get_if<Integer>(other)) return integer->text();
    if (const auto* decimal = get_if<Decimal>(other)) return "@decimal:" + decimal->text();
    if (const auto* rational = get_if<Rational>(other)) {
      return "@rational:" + rational->numerator().text() + "/" + rational->denominator().text();
    }
    if (const auto* date = get_if<Date>(other)) {
      return "@date:" + std::to_string(date->year) + "-" + std::to_string(date->month) + "-" +
             std::to_string(date->day);
    }
    if (const auto* time = get_if<Time>(other)) {
      return "@time:" + std::to_string(time->seconds) + "," + std::to_string(time->nanosecond) + "," +
             (time->offset ? std::to_string(*time->offset) : "nil");
    }
    if (const auto* point = get_if<Point>(other)) {
      return "@point:[" + packing_notation_of(point->x) + " " + packing_notation_of(point->y) + "]";
    }
    throw std::invalid_argument("no notation for this object");
  });
}

}  // namespace vorn_test
