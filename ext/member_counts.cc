#include "ext/member_counts.h"

namespace VORN {
namespace EXT {

namespace {

VALUE make_hidden_string(VALUE bytes) {
  return rb_str_tmp_new(static_cast<long>(bytes));
}

}  // namespace

int MemberCounts::take(const PROTO::ArrayCounts& counts) noexcept {
  uint32_t* kept = few_;
  if (counts.size() > PROTO::ArrayCounts::INLINE_SLOTS) {
    int jump_state = 0;
    many_ = rb_protect(make_hidden_string, counts.size() * sizeof(uint32_t), &jump_state);
    if (jump_state != 0) return jump_state;
    kept = reinterpret_cast<uint32_t*>(RSTRING_PTR(many_));
  }
  counts.copy_to(kept);
  next_ = kept;
  left_ = counts.size();
  return 0;
}

}  // namespace EXT
}  // namespace VORN
