#include "packing/packed_number.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "test/support/expect_thrown.h"

using namespace VORN::PACKING;
using vorn_test::expect_thrown;

namespace {

TEST(Integer, FromText) {
  for (const auto& [given, text] : {std::pair{"0", "0"},
                                    {"-0", "0"},
                                    {"000", "0"},
                                    {"7", "7"},
                                    {"-007", "-7"},
                                    {"100", "100"},
                                    {"18446744073709551616", "18446744073709551616"}}) {
    EXPECT_EQ(text, Integer(given).text());
  }
  EXPECT_EQ("0", Integer().text());
  for (const char* given : {"", "-", "+1", " 1", "1 ", "0x1", "1_0", "--1", "1-", "1.0", "\xD9\xA1"}) {
    expect_thrown<std::invalid_argument>([&] { Integer{std::string_view(given)}; },
                                         "not a decimal integer of 1 to 4096 digits");
  }
  expect_thrown<std::invalid_argument>([] { Integer{std::string_view("1\0", 2)}; },
                                       "not a decimal integer of 1 to 4096 digits");
}

TEST(Integer, LengthOfText) {
  const std::string most(4096, '9');
  EXPECT_EQ(most, Integer(most).text());
  EXPECT_EQ("-" + most, Integer("-" + most).text());
  for (const std::string& more : {most + "9", "0" + most, "-0" + most}) {
    expect_thrown<std::invalid_argument>([&] { Integer{more}; }, "not a decimal integer of 1 to 4096 digits");
  }
}

TEST(Integer, FromIntegers) {
  EXPECT_EQ("-9223372036854775808", Integer(INT64_MIN).text());
  EXPECT_EQ("18446744073709551615", Integer(UINT64_MAX).text());
  EXPECT_EQ("-5", Integer(-5).text());
  EXPECT_EQ(Integer("-05"), Integer(-5));
  EXPECT_NE(Integer(5), Integer(-5));
}

TEST(Integer, ToIntegers) {
  const auto i64 = [](const char* text) { return Integer(text).to_i64(); };
  const auto u64 = [](const char* text) { return Integer(text).to_u64(); };
  EXPECT_EQ(INT64_MAX, i64("9223372036854775807"));
  EXPECT_EQ(std::nullopt, i64("9223372036854775808"));
  EXPECT_EQ(INT64_MIN, i64("-9223372036854775808"));
  EXPECT_EQ(std::nullopt, i64("-9223372036854775809"));
  EXPECT_EQ(UINT64_MAX, u64("18446744073709551615"));
  EXPECT_EQ(std::nullopt, u64("18446744073709551616"));
  EXPECT_EQ(std::nullopt, u64("-1"));
  EXPECT_EQ(0U, u64("0"));
}

TEST(Rational, Parts) {
  EXPECT_EQ("0", Rational().numerator().text());
  EXPECT_EQ("1", Rational().denominator().text());
  const Rational third(-1, 3);
  EXPECT_EQ(-1, third.numerator().to_i64());
  EXPECT_EQ(3, third.denominator().to_i64());
  EXPECT_EQ(Rational(Integer("-1"), Integer("03")), third);
  EXPECT_NE(Rational(-1, 2), third);
  EXPECT_NE(Rational(1, 3), third);
  EXPECT_NE(Rational(-2, 6), third) << "not reduced";
  for (const int denominator : {0, -1}) {
    expect_thrown<std::invalid_argument>([&] { Rational(1, denominator); }, "a denominator is positive");
  }
}

TEST(Decimal, FromText) {
  for (const auto& [given, text] : {std::pair{"0", "0.0"},
                                    {"-0", "-0.0"},
                                    {"0.000e9", "0.0"},
                                    {"12.50", "0.125e2"},
                                    {"-7", "-0.7e1"},
                                    {"1.5e-20", "0.15e-19"},
                                    {"1.5E+20", "0.15e21"},
                                    {"0.15e21", "0.15e21"},
                                    {"0.001", "0.1e-2"},
                                    {"100", "0.1e3"},
                                    {"00100.00", "0.1e3"},
                                    {"0.5", "0.5e0"},
                                    {"5e0001", "0.5e2"}}) {
    EXPECT_EQ(text, Decimal(given).text()) << given;
  }
  EXPECT_EQ("0.0", Decimal().text());
  EXPECT_EQ(Decimal("12.5"), Decimal("0.1250e2"));
  EXPECT_NE(Decimal("0"), Decimal("-0"));
  for (const char* given : {"", "-", ".", ".5", "5.", "+5", "NaN", "Infinity", "1e", "1e+", "1e00001", "1 ", " 1",
                            "1,5", "1.5.5", "0x1", "1e5x", "--1"}) {
    expect_thrown<std::invalid_argument>([&] { Decimal{std::string_view(given)}; }, "not a decimal number");
  }
}

TEST(Decimal, DigitsAndPowers) {
  const std::string text = "a decimal number of more than 4096 digits or powers of ten";
  const std::string most(4096, '9');
  EXPECT_EQ("0." + most + "e4096", Decimal(most).text());
  EXPECT_EQ("0." + most + "e0", Decimal("0." + most).text());
  EXPECT_EQ("0." + most + "e1", Decimal("0" + most.substr(0, 1) + "." + most.substr(1) + "000").text());
  for (const std::string& more : {most + ".1", "0." + most + "1", "0." + most + "e4097", most + "0"}) {
    expect_thrown<std::out_of_range>([&] { Decimal{more}; }, text);
  }
  EXPECT_EQ("0.1e4096", Decimal("1e4095").text());
  expect_thrown<std::out_of_range>([] { Decimal("1e4096"); }, text);
  EXPECT_EQ("0.0", Decimal("0e9999").text());
}

// What Ruby reads, but cannot send: a first digit that is 0 keeps the exponent in its range.
TEST(Decimal, BelowTheLeastPower) {
  const std::string text = "a decimal number of more than 4096 digits or powers of ten";
  EXPECT_EQ("0.1e-4096", Decimal("1e-4097").text());
  EXPECT_EQ("0.01e-4096", Decimal("1e-4098").text());
  EXPECT_EQ("0.05e-4096", Decimal("0.050e-4096").text());
  const std::string zeros(4095, '0');
  EXPECT_EQ("0." + zeros + "1e-4096", Decimal("1e-8192").text());
  expect_thrown<std::out_of_range>([] { Decimal("1e-8193"); }, text);
  EXPECT_EQ("0." + zeros + "1e-4096", Decimal("0." + zeros + "1e-4096").text());
  expect_thrown<std::out_of_range>([] { Decimal("11e-8193"); }, text);
  expect_thrown<std::out_of_range>([] { Decimal("1e-9999"); }, text);
}

}  // namespace
