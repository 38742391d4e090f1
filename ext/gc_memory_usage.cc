#include "ext/ruby_compat.h"

#ifndef HAVE_RB_GC_ADJUST_MEMORY_USAGE

#include <algorithm>

namespace VORN {
namespace EXT {

namespace {

// A collection starts when the native memory has grown by this much, or by as much as survived the last one:
// many live buffers must not mean a collection for every few new ones.
constexpr int64_t MIN_GROWTH = 32 << 20;

int64_t in_use = 0;
int64_t next_collection = MIN_GROWTH;

}  // namespace

void adjust_gc_memory_usage(int64_t difference) {
  in_use += difference;
  if (difference <= 0 || in_use < next_collection) return;
  next_collection = INT64_MAX;  // the collection below frees buffers and comes back here
  rb_gc();
  next_collection = in_use + std::max(MIN_GROWTH, in_use);
}

}  // namespace EXT
}  // namespace VORN

#endif
