#include "packing/packed_time.h"

#include <chrono>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

using namespace VORN::PACKING;
using namespace std::chrono_literals;
using std::chrono::system_clock;

namespace {

Time time_of(int64_t seconds, int32_t nanosecond) {
  Time time;
  time.seconds = seconds;
  time.nanosecond = nanosecond;
  return time;
}

TEST(Time, OfTheClock) {
  const system_clock::time_point epoch;
  EXPECT_EQ(time_of(0, 0), Time::of(epoch));
  EXPECT_EQ(time_of(1, 500000000), Time::of(epoch + 1500ms));
  EXPECT_EQ(time_of(-2, 500000000), Time::of(epoch - 1500ms));
  const system_clock::time_point now = system_clock::now();
  EXPECT_EQ(now, Time::of(now).time_point());
  EXPECT_EQ(epoch - 1500ms, time_of(-2, 500000000).time_point());
}

TEST(Time, BeyondTheClock) {
  const int64_t most = std::chrono::duration_cast<std::chrono::seconds>(system_clock::duration::max()).count();
  const int32_t tick = static_cast<int32_t>(std::chrono::nanoseconds(system_clock::duration(1)).count());
  for (const int64_t seconds : {most - 1, 1 - most}) {
    for (const int32_t nanosecond : {0, 999999999}) {
      EXPECT_EQ(time_of(seconds, nanosecond - nanosecond % tick), Time::of(time_of(seconds, nanosecond).time_point()));
    }
  }
  for (const Time& time : {time_of(most, 0), time_of(-most, 0), time_of(INT64_MAX, 0), time_of(INT64_MIN, 0),
                           time_of(0, -1), time_of(0, 1000000000)}) {
    try {
      time.time_point();
      ADD_FAILURE() << time.seconds;
    } catch (const std::out_of_range& e) {
      EXPECT_STREQ("a time that the clock cannot say", e.what());
    }
  }
}

TEST(Time, Equality) {
  Time local = time_of(1, 2);
  local.offset = 0;
  EXPECT_EQ(local, Time(local));
  EXPECT_NE(time_of(1, 2), local);
  EXPECT_NE(time_of(1, 2), time_of(1, 3));
  EXPECT_NE(time_of(1, 2), time_of(2, 2));
}

TEST(Date, Days) {
  EXPECT_EQ(0, Date().days());
  EXPECT_EQ(1, (Date{1970, 1, 2}.days()));
  EXPECT_EQ(-1, (Date{1969, 12, 31}.days()));
  EXPECT_EQ(19782, (Date{2024, 2, 29}.days()));
  EXPECT_EQ((Date{2024, 2, 29}), Date::of_days(19782));
  EXPECT_EQ((Date{0, 3, 1}), Date::of_days(-719468));
  EXPECT_NE((Date{2024, 2, 29}), (Date{2024, 2, 28}));
  EXPECT_NE((Date{2024, 2, 29}), (Date{2024, 3, 29}));
  EXPECT_NE((Date{2024, 2, 29}), (Date{2023, 2, 29}));
}

// Two eras of the calendar around the year 0, day by day: each follows the one before it.
TEST(Date, EveryDay) {
  Date yesterday = Date::of_days(-719468 - 146098);
  ASSERT_EQ((Date{-400, 2, 29}), yesterday);
  for (int32_t days = -719468 - 146097; days < -719468 + 146097; ++days) {
    const Date date = Date::of_days(days);
    ASSERT_EQ(days, date.days());
    const bool next_day = date.year == yesterday.year && date.month == yesterday.month && date.day == yesterday.day + 1;
    const bool next_month = date.year == yesterday.year && date.month == yesterday.month + 1 && date.day == 1;
    const bool next_year = date.year == yesterday.year + 1 && yesterday.month == 12 && yesterday.day == 31 &&
                           date.month == 1 && date.day == 1;
    ASSERT_TRUE(next_day || next_month || next_year) << days;
    ASSERT_LE(date.day, 31);
    yesterday = date;
  }
}

TEST(Date, LastDays) {
  const int32_t first = std::numeric_limits<int32_t>::min();
  const int32_t last = std::numeric_limits<int32_t>::max();
  EXPECT_EQ((Date{-5877641, 6, 23}), Date::of_days(first));
  EXPECT_EQ(first, (Date{-5877641, 6, 23}.days()));
  EXPECT_EQ((Date{5881580, 7, 11}), Date::of_days(last));
  EXPECT_EQ(last, (Date{5881580, 7, 11}.days()));
}

TEST(Date, NoDay) {
  for (const Date& date :
       {Date{-5877641, 6, 22}, Date{5881580, 7, 12}, Date{std::numeric_limits<int32_t>::max(), 12, 31},
        Date{std::numeric_limits<int32_t>::min(), 1, 1}, Date{2023, 2, 29}, Date{1900, 2, 29}, Date{2024, 2, 30},
        Date{2024, 4, 31}, Date{2024, 1, 32}, Date{2024, 1, 0}, Date{2024, 0, 1}, Date{2024, 13, 1}, Date{2024, -1, 1},
        Date{2024, std::numeric_limits<int32_t>::max(), std::numeric_limits<int32_t>::min()}}) {
    try {
      date.days();
      ADD_FAILURE() << date.year << " " << date.month << " " << date.day;
    } catch (const std::out_of_range& e) {
      EXPECT_STREQ("no day of the calendar", e.what());
    }
  }
}

}  // namespace
