#include "packing/packed_time.h"

#include <limits>
#include <stdexcept>

namespace VORN {
namespace PACKING {

using std::chrono::duration_cast;
using std::chrono::floor;
using std::chrono::nanoseconds;
using std::chrono::system_clock;

namespace {

// The calendar repeats itself after 400 years. Within them years begin in March, so that a leap day is a year's last.
constexpr int64_t DAYS_OF_ERA = 146097;
constexpr int64_t YEARS_OF_ERA = 400;
constexpr int64_t DAYS_OF_YEAR = 365;
constexpr int64_t DAY_0 = 719468;  // 1970-01-01, from 0000-03-01 on

int64_t floor_div(int64_t a, int64_t b) {
  return a / b - (a % b < 0 ? 1 : 0);
}

/// From the first of March to the first of the month, March being 0: 31 30 31 30 31, again and again.
int64_t day_of_month(int64_t month) {
  return (153 * month + 2) / 5;
}

Date date_of(int64_t days) {
  days += DAY_0;
  const int64_t era = floor_div(days, DAYS_OF_ERA);
  const int64_t of_era = days - era * DAYS_OF_ERA;
  // Each 4th year has a leap day, but not the 100th, but the 400th.
  const int64_t year = (of_era - of_era / 1460 + of_era / 36524 - of_era / 146096) / DAYS_OF_YEAR;
  const int64_t of_year = of_era - (DAYS_OF_YEAR * year + year / 4 - year / 100);
  const int64_t month = (5 * of_year + 2) / 153;
  Date date;
  date.year = static_cast<int32_t>(era * YEARS_OF_ERA + year + (month >= 10 ? 1 : 0));
  date.month = static_cast<int32_t>(month < 10 ? month + 3 : month - 9);
  date.day = static_cast<int32_t>(of_year - day_of_month(month) + 1);
  return date;
}

}  // namespace

Time Time::of(system_clock::time_point point) {
  const auto since_epoch = point.time_since_epoch();
  const auto seconds = floor<std::chrono::seconds>(since_epoch);
  Time time;
  time.seconds = seconds.count();
  time.nanosecond = static_cast<int32_t>(duration_cast<nanoseconds>(since_epoch - seconds).count());
  return time;
}

system_clock::time_point Time::time_point() const {
  using Duration = system_clock::duration;
  constexpr int64_t most = duration_cast<std::chrono::seconds>(Duration::max()).count();
  // A second less, so that the sum does not overflow.
  if (seconds >= most || seconds <= -most || nanosecond < 0 || nanosecond > 999999999) {
    throw std::out_of_range("a time that the clock cannot say");
  }
  return system_clock::time_point(duration_cast<Duration>(std::chrono::seconds(seconds)) +
                                  floor<Duration>(nanoseconds(nanosecond)));
}

Date Date::of_days(int32_t days) {
  return date_of(days);
}

int32_t Date::days() const {
  const int64_t year_from_march = int64_t{year} - (month <= 2 ? 1 : 0);
  const int64_t era = floor_div(year_from_march, YEARS_OF_ERA);
  const int64_t of_era = year_from_march - era * YEARS_OF_ERA;
  const int64_t month_from_march = month > 2 ? int64_t{month} - 3 : int64_t{month} + 9;
  if (month >= 1 && month <= 12 && day >= 1 && day <= 31) {
    const int64_t days = era * DAYS_OF_ERA + of_era * DAYS_OF_YEAR + of_era / 4 - of_era / 100 +
                         day_of_month(month_from_march) + day - 1 - DAY_0;
    const bool fits = days >= std::numeric_limits<int32_t>::min() && days <= std::numeric_limits<int32_t>::max();
    // The 31st of April is the first of May, and so no day.
    if (fits && date_of(days) == *this) return static_cast<int32_t>(days);
  }
  throw std::out_of_range("no day of the calendar");
}

}  // namespace PACKING
}  // namespace VORN
