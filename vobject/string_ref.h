/// The key type of variant hashes and of the symbol table: a pointer, a length, and who owns the bytes.
///
/// A key made from a string only borrows its bytes: a lookup allocates nothing. Copying is what makes a key
/// last: the copy of a borrowed or owned key owns a copy of the bytes, so a borrowed key that is inserted
/// into a map becomes an owned one. A static key's copies share its bytes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "proto/export.h"

namespace VORN {

/// Bytes that it borrows, owns or shares with the whole process.
class VORN_API string_ref {
 public:
  /// Borrow bytes, which must stay where they are as long as the key is used. A length that no memory can hold, as
  /// 2^32 where addresses have 32 bits, throws std::length_error, here and in make_static().
  /// @{
  string_ref(const char* text) : string_ref(text, std::strlen(text)) {}
  string_ref(const std::string& bytes) : string_ref(bytes.data(), bytes.size()) {}
  string_ref(const char* bytes, uint64_t length) : string_ref(BORROWED, bytes, length) {}
  /// @}

  /// A key over bytes that live as long as the process and never change.
  static string_ref make_static(const char* bytes, uint64_t length) { return {STATIC, bytes, length}; }

  /// Copies the bytes, unless they are static. Throws std::bad_alloc.
  string_ref(const string_ref& src)
      : owner_flag_(src.owner_flag_ < 0 ? STATIC : OWNED),
        data_(src.owner_flag_ < 0 ? src.data_ : copy_of(src)),
        length_(src.length_) {}
  string_ref& operator=(const string_ref&) = delete;

  virtual ~string_ref() {
    if (owner_flag_ > 0) delete[] data_;
  }

  /// The bytes, which no zero byte ends.
  /// @{
  const char* data() const { return data_; }
  uint64_t length() const { return length_; }
  std::string_view view() const { return {data_, size()}; }
  /// @}

  /// 0: borrowed; 1: owned; negative: static.
  int8_t owner_flag() const { return owner_flag_; }

  /// Negative, zero or positive: by the bytes, unsigned, up to the shorter length; then the shorter is less.
  int compare(const string_ref& other) const {
    const size_t common = std::min(size(), other.size());
    const int order = common == 0 ? 0 : std::memcmp(data_, other.data_, common);
    if (order != 0) return order;
    return length_ < other.length_ ? -1 : length_ > other.length_ ? 1 : 0;
  }

 private:
  static constexpr int8_t STATIC = -1;
  static constexpr int8_t BORROWED = 0;
  static constexpr int8_t OWNED = 1;

  string_ref(int8_t owner_flag, const char* data, uint64_t length)
      : owner_flag_(owner_flag), data_(data), length_(length) {
    if (size() != length) throw std::length_error("string_ref::string_ref: length out of range");
  }

  static const char* copy_of(const string_ref& src) {
    const size_t n = src.size();
    char* const bytes = new char[n];
    if (n != 0) std::memcpy(bytes, src.data_, n);
    return bytes;
  }

  /// The length, which the constructor has found to fit.
  size_t size() const { return static_cast<size_t>(length_); }

  int8_t owner_flag_;
  const char* data_;
  uint64_t length_;
};

/// Whether the bytes are the same, whoever owns them.
/// @{
inline bool operator==(const string_ref& a, const string_ref& b) {
  return a.view() == b.view();
}

inline bool operator!=(const string_ref& a, const string_ref& b) {
  return !(a == b);
}
/// @}

}  // namespace VORN

namespace std {

/// The order of string_ref::compare().
template <>
struct less<VORN::string_ref> {
  /// Whether `a` comes before `b`.
  bool operator()(const VORN::string_ref& a, const VORN::string_ref& b) const { return a.compare(b) < 0; }
};

}  // namespace std
