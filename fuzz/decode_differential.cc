/// The variant decoder against the reference decoder: the same value bit for bit, complete or not, the same
/// failure, the same position.
#include <string>

#include "fuzz/check.h"
#include "fuzz/decode_input.h"
#include "fuzz/values.h"
#include "proto/vorn_runtime_error.h"
#include "test/support/poisoned_tail.h"
#include "test/support/reference_decoder.h"

using namespace VORN;

namespace {

/// Vectors get their exact size beforehand.
bool is_exact(const VObject& v) {
  if (v.type() == DT_HASH) {
    for (const auto& member : v.gethash()) {
      if (!is_exact(member.second)) return false;
    }
  } else if (v.type() == DT_VECTOR) {
    if (v.getvec().capacity() != v.getvec().size()) return false;
    for (const VObject& element : v.getvec()) {
      if (!is_exact(element)) return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const vorn_fuzz::DecodeInput in(data, size);
  const vorn_test::PoisonedTail tail(*in.buf);
  VObject expected("before");
  const std::string expected_failure =
      vorn_test::reference_deserialize(*in.buf, in.end, expected, in.symbols_as_strings, in.maxdepth);
  const uint64_t expected_pos = in.buf->pos();

  in.buf->set_pos(in.start);
  VObject out("before");
  std::string failure;
  try {
    VObject::deserialize(*in.buf, in.end, out, in.symbols_as_strings, in.maxdepth);
  } catch (const VornRuntimeError& e) {
    failure = e.what();
  }
  VORN_CHECK(failure == expected_failure);
  VORN_CHECK(in.buf->pos() == expected_pos);
  VORN_CHECK(vorn_fuzz::encoded(out) == vorn_fuzz::encoded(expected));
  VORN_CHECK(!failure.empty() || is_exact(out));
  return 0;
}
