/// The checking pass with the limits of the variant's decoder and of Ruby's, against the reference decoder: the same
/// fault, the same position, the same counts of elements.
#include <string>

#include "fuzz/check.h"
#include "fuzz/decode_input.h"
#include "proto/value_check.h"
#include "test/support/poisoned_tail.h"
#include "test/support/reference_decoder.h"

using namespace VORN::PROTO;

namespace {

const char* text_of(ValueFault fault) {
  switch (fault) {
    case ValueFault::none: return "";
    case ValueFault::max_depth: return "VObject::deserialize: maxdepth exceeded";
    case ValueFault::underrun: return "VObject::deserialize: buffer underrun";
    case ValueFault::underrun_int: return "VObject::deserialize: buffer underrun decoding integer";
    case ValueFault::underrun_length: return "VObject::deserialize_str: buffer underrun decoding data length";
    case ValueFault::underrun_string: return "VObject::deserialize_str: buffer underrun extracting data bytes";
    case ValueFault::underrun_float: return "VObject::deserialize_float: buffer underrun";
    case ValueFault::underrun_double: return "VObject::deserialize_double: buffer underrun";
    case ValueFault::underrun_hash: return "VObject::deserialize_hash: buffer underrun";
    case ValueFault::underrun_array: return "VObject::deserialize_array: buffer underrun";
    case ValueFault::unknown_type: return "VObject::deserialize: unrecognized protocol transport type";
  }
  return nullptr;
}

void compare(const PacketBuf& buf, const CheckLimits& limits) {
  const vorn_test::ReferenceScan expected =
      vorn_test::reference_scan(buf, limits.value_end, limits.string_end, static_cast<uint32_t>(limits.maxdepth));
  WireReader in(buf);
  ArrayCounts counts;
  const ValueFault fault = check_value(in, limits, counts);
  VORN_CHECK(text_of(fault) == expected.failure);
  VORN_CHECK(in.pos() == expected.pos);
  if (fault != ValueFault::none) return;
  for (const uint64_t count : expected.array_counts) VORN_CHECK(counts.next() == count);
  VORN_CHECK(counts.next() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const vorn_fuzz::DecodeInput in(data, size);
  const vorn_test::PoisonedTail tail(*in.buf);
  const int32_t maxdepth = static_cast<int32_t>(in.maxdepth);
  compare(*in.buf, {maxdepth, in.end, UINT64_MAX});                 // variants
  compare(*in.buf, {maxdepth, UINT64_MAX, in.buf->data().size()});  // Ruby objects
  return 0;
}
