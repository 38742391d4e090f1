/// Trees encoded into an outbound frame, sent through an inbound one, and decoded.
#include <string>
#include <vector>

#include "fuzz/check.h"
#include "fuzz/values.h"
#include "proto/packet_frame_out.h"
#include "proto/vorn_runtime_error.h"
#include "vobject/extract_messages.h"

using namespace VORN;
using namespace VORN::PROTO;
using vorn_fuzz::encoded;

namespace {

bool serialize(const VObject& v, PacketBuf& buf, uint32_t maxdepth) {
  try {
    v.serialize(buf, maxdepth);
    return true;
  } catch (const VornRuntimeError& e) {
    VORN_CHECK(std::string(e.what()) == "VObject::serialize: maxdepth exceeded");
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vorn_fuzz::Input input(data, size);
  const bool twelve_bytes = input.below(2) != 0;
  const uint32_t maxdepth = input.below(4) != 0 ? 64 : input.byte();
  const VObject v = vorn_fuzz::tree(input, 80, false);
  const std::string bytes = encoded(v);

  PacketFrameOut out;
  out.set_use_12byte_header(twelve_bytes);
  out.set_next_seq(static_cast<uint16_t>(size));
  out.reset();
  const bool fits = serialize(v, out, maxdepth);
  VORN_CHECK(fits == (vorn_fuzz::levels_of(v) <= maxdepth));
  if (!fits) return 0;
  out.compute_frame_header();

  PacketFrameIn in;
  in.reset();
  VORN_CHECK(in.assemble(out.data().data(), out.pos(), 0) == out.pos());
  VORN_CHECK(in.have_complete_frame() && in.seq() == static_cast<uint16_t>(size));
  VORN_CHECK(in.data().substr(in.payload_start(), in.payload_size()) == bytes);

  in.set_pos(in.payload_start());
  VObject back;
  VObject::deserialize(in, in.payload_end(), back, false, maxdepth);
  VORN_CHECK(in.pos() == in.payload_end());
  VORN_CHECK(encoded(back) == bytes);

  if (vorn_fuzz::levels_of(v) > 64) return 0;
  VObject copy(back);
  VORN_CHECK(encoded(deep_copy(v, copy)) == bytes);
  std::vector<VObject> messages;
  proto_extract_messages(in, messages);
  const uint8_t type = v.type() == DT_SYMBOL ? uint8_t{DT_STR} : v.type();
  VORN_CHECK(messages.size() == 1 && messages[0].type() == type);
  return 0;
}
