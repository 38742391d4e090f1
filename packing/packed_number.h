/// Numbers that a variant has no kind for, as text: a program that calculates with them gives the text to a library of
/// its choice. Each object holds a number that can be packed; what cannot be one is refused when it is made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "proto/export.h"

namespace VORN {
namespace PACKING {

/// The most digits of a number. Converting text takes others time that grows faster than its length.
constexpr size_t MOST_DIGITS = 4096;

/// An integer of any sign and size.
class VORN_API Integer {
 public:
  /// 0.
  Integer();
  /// From an integer of the language.
  template <typename T, std::enable_if_t<std::is_integral<T>::value && !std::is_same<T, bool>::value, int> = 0>
  Integer(T number) : text_(std::to_string(number)) {}
  /// From decimal digits, behind `-` if it is negative; zeros before them are dropped. Throws std::invalid_argument
  /// "not a decimal integer of 1 to 4096 digits".
  explicit Integer(std::string_view decimal);

  /// The digits, behind `-` if it is negative. No zero comes first, but for 0 itself.
  const std::string& text() const { return text_; }

  /// The number, if it fits.
  /// @{
  std::optional<int64_t> to_i64() const;
  std::optional<uint64_t> to_u64() const;
  /// @}

  /// Whether it is the same number.
  /// @{
  bool operator==(const Integer& other) const { return text_ == other.text_; }
  bool operator!=(const Integer& other) const { return !(*this == other); }
  /// @}

 private:
  std::string text_;
};

/// A fraction, as it was given: it is not reduced, and equals only one of the same two numbers.
class VORN_API Rational {
 public:
  /// 0/1.
  Rational();
  /// Throws std::invalid_argument "a denominator is positive" for another one.
  Rational(Integer numerator, Integer denominator);

  /// The number above the line.
  const Integer& numerator() const { return numerator_; }
  /// The number below it, from 1 on.
  const Integer& denominator() const { return denominator_; }

  /// Whether both numbers are the same.
  /// @{
  bool operator==(const Rational& other) const {
    return numerator_ == other.numerator_ && denominator_ == other.denominator_;
  }
  bool operator!=(const Rational& other) const { return !(*this == other); }
  /// @}

 private:
  Integer numerator_;
  Integer denominator_;
};

/// A decimal number, exactly.
class VORN_API Decimal {
 public:
  /// 0.
  Decimal();
  /// From "12.50", "-7" or "1.5e-20". Throws std::invalid_argument "not a decimal number", and std::out_of_range
  /// "a decimal number of more than 4096 digits or powers of ten".
  explicit Decimal(std::string_view text);

  /// The one way to write this number: "0.0", "0.125e2", "-0.15e-19". The first digit behind the point is 0 only in 0
  /// and where the exponent would be below -4096. Zero may be negative.
  const std::string& text() const { return text_; }

  /// Whether it is the same number, the zeros being two.
  /// @{
  bool operator==(const Decimal& other) const { return text_ == other.text_; }
  bool operator!=(const Decimal& other) const { return !(*this == other); }
  /// @}

 private:
  std::string text_;
};

}  // namespace PACKING
}  // namespace VORN
