// The types that need no functions of the program. What arrives is hostile: each part is checked before it is used, and
// numbers are short enough for what converts them.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "packing/packing.h"

namespace VORN {
namespace PACKING {

namespace {

constexpr int64_t SECONDS_OF_DAY = 86400;
constexpr int32_t LAST_NANOSECOND = 999999999;
constexpr int32_t LAST_SECOND = SECONDS_OF_DAY - 1;
constexpr int64_t MOST_POWERS = 4096;
constexpr size_t MOST_DIGITS_OF_EXPONENT = 4;

bool within(int32_t least, int32_t number, int32_t most) {
  return number >= least && number <= most;
}

// Lambdas: std::function would export the types of pointers to functions.

const auto pack_integer = [](const Integer& number) -> VObject { return number.text(); };

const auto unpack_integer = [](const VObject& body) -> Integer { return Integer(get<std::string>(body)); };

const auto pack_rational = [](const Rational& number) -> VObject {
  return number.numerator().text() + "/" + number.denominator().text();
};

const auto unpack_rational = [](const VObject& body) -> Rational {
  const std::string text = get<std::string>(body);
  const size_t line = text.find('/');
  if (line == std::string::npos) throw std::invalid_argument("a fraction without denominator");
  return {Integer(text.substr(0, line)), Integer(text.substr(line + 1))};
};

/// -?0\.\d{1,4096}(e-?\d{1,4})?
bool is_decimal(std::string_view text) {
  if (text.substr(0, 1) == "-") text.remove_prefix(1);
  if (text.substr(0, 2) != "0.") return false;
  text.remove_prefix(2);
  const size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  text.remove_prefix(digits);
  if (digits == 0 || digits > MOST_DIGITS) return false;
  if (text.empty()) return true;
  if (text.front() != 'e') return false;
  text.remove_prefix(1);
  if (text.size() > MOST_DIGITS_OF_EXPONENT + (text.substr(0, 1) == "-" ? 1 : 0)) return false;
  const int64_t exponent = Integer(text).to_i64().value_or(MOST_POWERS + 1);
  return exponent >= -MOST_POWERS && exponent <= MOST_POWERS;
}

const auto pack_decimal = [](const Decimal& number) -> VObject { return number.text(); };

const auto unpack_decimal = [](const VObject& body) -> Decimal {
  const std::string text = get<std::string>(body);
  if (!is_decimal(text)) throw std::invalid_argument("not a decimal number");
  return Decimal(text);
};

const auto pack_date = [](const Date& date) -> VObject { return date.days(); };

const auto unpack_date = [](const VObject& body) -> Date { return Date::of_days(get<int32_t>(body)); };

const auto pack_time = [](const Time& time) -> VObject {
  const int64_t second = (time.seconds % SECONDS_OF_DAY + SECONDS_OF_DAY) % SECONDS_OF_DAY;
  const int64_t day = time.seconds / SECONDS_OF_DAY - (time.seconds % SECONDS_OF_DAY < 0 ? 1 : 0);
  if (day < std::numeric_limits<int32_t>::min() || day > std::numeric_limits<int32_t>::max() ||
      !within(0, time.nanosecond, LAST_NANOSECOND) || !within(-LAST_SECOND, time.offset.value_or(0), LAST_SECOND)) {
    throw std::out_of_range("a time that cannot be packed");
  }
  return VObject(VObjectVector{day, second, time.nanosecond, variant_of(time.offset)});
};

const auto unpack_time = [](const VObject& body) -> Time {
  if (body.type() != DT_VECTOR || body.getvec().size() != 4)
    throw std::invalid_argument("not the four parts of a time");
  const VObjectVector& parts = body.getvec();
  const int32_t second = get<int32_t>(parts[1]);
  Time time;
  time.seconds = get<int32_t>(parts[0]) * SECONDS_OF_DAY + second;
  time.nanosecond = get<int32_t>(parts[2]);
  time.offset = get<std::optional<int32_t>>(parts[3]);
  if (!within(0, second, LAST_SECOND) || !within(0, time.nanosecond, LAST_NANOSECOND) ||
      !within(-LAST_SECOND, time.offset.value_or(0), LAST_SECOND)) {
    throw std::invalid_argument("a part of a time out of its range");
  }
  return time;
};

}  // namespace

void Packing::add_ready_made(ReadyMade name) {
  switch (name) {
    case ReadyMade::integer: type<Integer>("integer", pack_integer, unpack_integer); break;
    case ReadyMade::time: type<Time>("time", pack_time, unpack_time); break;
    case ReadyMade::date: type<Date>("date", pack_date, unpack_date); break;
    case ReadyMade::decimal: type<Decimal>("decimal", pack_decimal, unpack_decimal); break;
    case ReadyMade::rational: type<Rational>("rational", pack_rational, unpack_rational); break;
  }
}

}  // namespace PACKING
}  // namespace VORN
