/// Arbitrary bytes into the variant decoder. What it decodes can be encoded and decoded again.
#include <set>
#include <string>

#include "fuzz/check.h"
#include "fuzz/decode_input.h"
#include "fuzz/values.h"
#include "proto/vorn_runtime_error.h"
#include "test/support/poisoned_tail.h"

using namespace VORN;
using vorn_fuzz::DecodeInput;
using vorn_fuzz::encoded;

namespace {

/// The failures that only the building pass meets.
bool is_late(const std::string& text) {
  return text == "VObject::deserialize_hash: only hash keys of type string are supported" ||
         text == "VObject::deserialize_str: buffer underrun extracting data bytes";
}

/// Decodes the encoding from a second buffer.
VObject reread(const std::string& bytes, const DecodeInput& in) {
  PROTO::PacketBuf buf;
  vorn_test::fill(buf, bytes);
  VObject out;
  VObject::deserialize(buf, bytes.size(), out, in.symbols_as_strings, in.maxdepth);
  VORN_CHECK(buf.pos() == bytes.size());
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const DecodeInput in(data, size);
  const vorn_test::PoisonedTail tail(*in.buf);
  VObject out("before");
  try {
    VObject::deserialize(*in.buf, in.end, out, in.symbols_as_strings, in.maxdepth);
  } catch (const VornRuntimeError& e) {
    VORN_CHECK(std::string(e.what()).rfind("VObject::deserialize", 0) == 0);
    VORN_CHECK(is_late(e.what()) || out == VObject("before"));
    VORN_CHECK(in.buf->pos() >= in.start);
    return 0;
  }
  const uint64_t end = in.buf->pos();
  VORN_CHECK(in.start >= in.buf->payload_start() && end > in.start);
  VORN_CHECK(end <= in.buf->payload_end() && end <= in.buf->data().size());

  const std::string bytes = encoded(out);
  VORN_CHECK(vorn_fuzz::levels_of(out) <= in.maxdepth);
  VORN_CHECK(encoded(reread(bytes, in)) == bytes);
  VORN_CHECK(encoded(reread(in.buf->data().substr(in.start, end - in.start), in)) == bytes);
  return 0;
}
