/// Bytes that end, or start, at an inaccessible page: reading or writing one byte too far crashes the test, in a
/// release build too.
#pragma once

#include <cstddef>
#include <cstring>
#include <new>
#include <string>

#include "test/support/pages.h"

namespace vorn_test {

class GuardedBytes {
 public:
  enum Guard { BEHIND, BEFORE };

  explicit GuardedBytes(const std::string& bytes, Guard guard = BEHIND) : size_(bytes.size()) {
    const size_t page = page_size();
    const size_t room = (size_ + page - 1) / page * page;
    mapped_ = room + page;
    start_ = map_pages(mapped_);
    if (start_ == nullptr) throw std::bad_alloc();
    if (!forbid_pages(guard == BEHIND ? start_ + room : start_, page)) {
      unmap_pages(start_, mapped_);
      throw std::bad_alloc();
    }
    data_ = guard == BEHIND ? start_ + room - size_ : start_ + page;
    if (size_ != 0) std::memcpy(data_, bytes.data(), size_);
  }
  ~GuardedBytes() { unmap_pages(start_, mapped_); }
  GuardedBytes(const GuardedBytes&) = delete;
  GuardedBytes& operator=(const GuardedBytes&) = delete;

  char* data() { return data_; }
  const char* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  char* start_;
  char* data_;
  size_t size_;
  size_t mapped_;
};

}  // namespace vorn_test
