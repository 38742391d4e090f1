/// Points in time and days, which a variant has no kind for.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "proto/export.h"

namespace VORN {
namespace PACKING {

/// A point in time, with the offset from UTC at which it was read. It can be packed from -2^31 to 2^31 - 1 days around
/// 1970, with offsets of less than a day.
struct VORN_API Time {
  int64_t seconds = 0;            ///< since 1970-01-01 00:00 UTC, leap seconds not counted
  int32_t nanosecond = 0;         ///< of the second, from 0 to 999999999
  std::optional<int32_t> offset;  ///< of local time from UTC in seconds, east of it positive; none: it is UTC

  /// The same point in time, to the nanosecond (rounded down), as UTC.
  static Time of(std::chrono::system_clock::time_point point);
  /// The same point in time, rounded down to what the clock can say. Throws std::out_of_range "a time that the clock
  /// cannot say", which libstdc++'s cannot before 1678 and after 2261.
  std::chrono::system_clock::time_point time_point() const;

  /// Whether point in time and offset are the same. No offset and one of 0 are not.
  /// @{
  bool operator==(const Time& other) const {
    return seconds == other.seconds && nanosecond == other.nanosecond && offset == other.offset;
  }
  bool operator!=(const Time& other) const { return !(*this == other); }
  /// @}
};

/// A day of the Gregorian calendar, which is continued to before it began.
struct VORN_API Date {
  int32_t year = 1970;  ///< 0 is the one before 1
  int32_t month = 1;    ///< from 1 to 12
  int32_t day = 1;      ///< of the month, from 1 on

  /// The day that is so many days after 1970-01-01.
  static Date of_days(int32_t days);
  /// How many days after 1970-01-01 it is. Throws std::out_of_range "no day of the calendar", and if 32 bits are too
  /// few: before -5877641-06-23 and after 5881580-07-11.
  int32_t days() const;

  /// Whether it is the same day.
  /// @{
  bool operator==(const Date& other) const { return year == other.year && month == other.month && day == other.day; }
  bool operator!=(const Date& other) const { return !(*this == other); }
  /// @}
};

}  // namespace PACKING
}  // namespace VORN
