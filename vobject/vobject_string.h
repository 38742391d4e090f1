/// The string class that variants hold: the standard byte string under a type of its own, so that an overload
/// can tell it from std::string.
#pragma once

#include <string>

namespace STDSTRING {

/// A byte string that counts its length and may hold any byte, zero included.
template <typename Char>
class CStdStr : public std::basic_string<Char> {
 public:
  using std::basic_string<Char>::basic_string;
  using std::basic_string<Char>::operator=;
  /// Empty.
  CStdStr() = default;
  /// A copy of a standard string.
  CStdStr(const std::basic_string<Char>& bytes) : std::basic_string<Char>(bytes) {}
};

}  // namespace STDSTRING

namespace VORN {

/// What a variant of the kind DT_STR holds.
using VObjectString = STDSTRING::CStdStr<char>;

}  // namespace VORN
