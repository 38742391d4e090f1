#include "packing/packed_number.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <utility>

namespace VORN {
namespace PACKING {

namespace {

constexpr int MOST_POWERS = 4096;
constexpr size_t MOST_DIGITS_OF_EXPONENT = 4;

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

/// Takes the digits at the beginning of the text.
std::string_view take_digits(std::string_view& text) {
  size_t n = 0;
  while (n < text.size() && is_digit(text[n])) ++n;
  const std::string_view digits = text.substr(0, n);
  text.remove_prefix(n);
  return digits;
}

/// Takes the character if the text begins with it.
bool take(std::string_view& text, char c) {
  if (text.empty() || text.front() != c) return false;
  text.remove_prefix(1);
  return true;
}

template <typename T>
std::optional<T> number_in(const std::string& text) {
  T number = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return number;
}

[[noreturn]] void refuse_decimal() {
  throw std::invalid_argument("not a decimal number");
}

/// The exponent behind the digits, "e-20"; 0 if there is none.
int take_exponent(std::string_view& text) {
  if (!take(text, 'e') && !take(text, 'E')) return 0;
  const bool negative = take(text, '-');
  if (!negative) take(text, '+');
  const std::string_view digits = take_digits(text);
  if (digits.empty() || digits.size() > MOST_DIGITS_OF_EXPONENT) refuse_decimal();
  int exponent = 0;
  for (const char c : digits) exponent = exponent * 10 + (c - '0');
  return negative ? -exponent : exponent;
}

}  // namespace

Integer::Integer() : text_("0") {}

Integer::Integer(std::string_view decimal) {
  const bool negative = take(decimal, '-');
  std::string_view digits = take_digits(decimal);
  if (digits.empty() || digits.size() > MOST_DIGITS || !decimal.empty()) {
    throw std::invalid_argument("not a decimal integer of 1 to 4096 digits");
  }
  digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size() - 1));
  if (negative && digits != "0") text_ += '-';
  text_ += digits;
}

std::optional<int64_t> Integer::to_i64() const {
  return number_in<int64_t>(text_);
}

std::optional<uint64_t> Integer::to_u64() const {
  return number_in<uint64_t>(text_);
}

Rational::Rational() : denominator_(1) {}

Rational::Rational(Integer numerator, Integer denominator)
    : numerator_(std::move(numerator)), denominator_(std::move(denominator)) {
  const char first = denominator_.text().front();
  if (first == '-' || first == '0') throw std::invalid_argument("a denominator is positive");
}

Decimal::Decimal() : text_("0.0") {}

// The number is 0.DIGITS times ten to the power of `exponent`. Nothing here grows with the exponent, but for the zeros
// that stand in for powers below the least, of which there are fewer than digits are allowed.
Decimal::Decimal(std::string_view text) {
  if (take(text, '-')) text_ = "-";
  std::string digits(take_digits(text));
  if (digits.empty()) refuse_decimal();
  const size_t whole = digits.size();
  if (take(text, '.')) {
    const std::string_view fraction = take_digits(text);
    if (fraction.empty()) refuse_decimal();
    digits += fraction;
  }
  int64_t exponent = static_cast<int64_t>(whole) + take_exponent(text);
  if (!text.empty()) refuse_decimal();

  const size_t first = digits.find_first_not_of('0');
  if (first == std::string::npos) {
    text_ += "0.0";
    return;
  }
  digits.erase(digits.find_last_not_of('0') + 1);
  digits.erase(0, first);
  exponent -= static_cast<int64_t>(first);
  const int64_t zeros = -MOST_POWERS - exponent;
  if (zeros > 0 && zeros < static_cast<int64_t>(MOST_DIGITS)) {
    digits.insert(0, static_cast<size_t>(zeros), '0');
    exponent += zeros;
  }
  if (digits.size() > MOST_DIGITS || exponent > MOST_POWERS || exponent < -MOST_POWERS) {
    throw std::out_of_range("a decimal number of more than 4096 digits or powers of ten");
  }
  text_ += "0." + digits + "e" + std::to_string(exponent);
}

}  // namespace PACKING
}  // namespace VORN
