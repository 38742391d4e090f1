#include "rpc/detail/outbox.h"

namespace VORN {
namespace RPC {

namespace {

constexpr size_t KEPT = 64 << 10;  // of a buffer's memory, for what comes next

}  // namespace

std::string_view Outbox::begin() {
  if (!writing_.empty()) return {};
  writing_.swap(next_);
  return writing_;
}

void Outbox::end() {
  ++written_;
  writing_.clear();
  if (writing_.capacity() > KEPT) writing_.shrink_to_fit();
}

}  // namespace RPC
}  // namespace VORN
