/// While alive, makes the spare capacity after a buffer's bytes unreadable in builds with AddressSanitizer; elsewhere
/// it does nothing. A buffer's storage is larger than its bytes, so without this an overrun would go unnoticed.
#pragma once

#include <cstddef>

#include "proto/packet_buf.h"

#if defined(__SANITIZE_ADDRESS__)
#define VORN_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VORN_TEST_ASAN 1
#endif
#endif

#ifdef VORN_TEST_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace vorn_test {

class PoisonedTail {
 public:
  /// REQUIRES: nothing is written to the buffer while this is alive.
  explicit PoisonedTail(const VORN::PROTO::PacketBuf& buf)
      : at_(buf.data().data() + buf.data().size()), size_(buf.data().capacity() - buf.data().size()) {
#ifdef VORN_TEST_ASAN
    __asan_poison_memory_region(at_, size_);
#endif
  }
  ~PoisonedTail() {
#ifdef VORN_TEST_ASAN
    __asan_unpoison_memory_region(at_, size_);
#endif
  }
  PoisonedTail(const PoisonedTail&) = delete;
  PoisonedTail& operator=(const PoisonedTail&) = delete;

 private:
  const char* at_;
  size_t size_;
};

}  // namespace vorn_test
