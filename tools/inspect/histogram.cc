#include "tools/inspect/histogram.h"

#include <algorithm>

namespace vorn_inspect {

namespace {

unsigned bits(uint64_t size) {
  unsigned n = 0;
  for (; size != 0; size >>= 1) ++n;
  return n;
}

}  // namespace

void Histogram::add(uint64_t size) {
  ++counts_[bits(size)];
  ++count_;
  sum_ += size;
  min_ = std::min(min_, size);
  max_ = std::max(max_, size);
}

unsigned Histogram::first() const {
  return bits(min_);
}

unsigned Histogram::last() const {
  return bits(max_);
}

Histogram::Range Histogram::range(unsigned index) const {
  if (index == 0) return {0, 0, counts_[0]};
  const uint64_t from = uint64_t{1} << (index - 1);
  return {from, from + (from - 1), counts_[index]};
}

}  // namespace vorn_inspect
