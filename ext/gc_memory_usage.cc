#include <algorithm>

#include "ext/ruby_compat.h"

namespace VORN {
namespace EXT {

namespace {

// A collection starts when the native memory has grown by this much, or by as much as survived the last one: many live
// buffers must not mean a collection for every few new ones. The interpreter lets what it allocates itself grow by as
// much.
constexpr int64_t MIN_GROWTH = 32 << 20;

int64_t in_use = 0;
int64_t next_collection = MIN_GROWTH;

void set_next_collection() {
  next_collection = in_use + std::max(MIN_GROWTH, in_use);
}

}  // namespace

void count_native_memory(int64_t difference) {
  in_use += difference;
  if (difference <= 0 || in_use < next_collection) return;
  set_next_collection();  // for other threads, and finalizers: one of those may wait for ever
  rb_gc();
  set_next_collection();
}

}  // namespace EXT
}  // namespace VORN
