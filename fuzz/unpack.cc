/// Arbitrary values into unpacking. It ends in a value or an Error, and what it has made can be packed, and is then
/// unpacked to the same.
#include <string>

#include "fuzz/check.h"
#include "fuzz/values.h"
#include "packing/packing.h"
#include "proto/packet_buf.h"
#include "proto/vorn_runtime_error.h"
#include "test/support/buffers.h"
#include "test/support/packing_notation.h"

using namespace VORN;
using vorn_fuzz::encoded;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const PACKING::Packing& packing = vorn_test::table_packing();
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  PROTO::PacketBuf buf;
  vorn_test::fill(buf, bytes);
  VObject received;
  try {
    VObject::deserialize(buf, bytes.size(), received, true, 64);
  } catch (const VornRuntimeError&) {
    return 0;
  }
  const std::string before = encoded(received);
  VObject value;
  try {
    value = packing.unpack(received);
  } catch (const PACKING::Error&) {
    VORN_CHECK(encoded(received) == before);
    return 0;
  }
  VORN_CHECK(encoded(received) == before);
  VObject packed;
  try {
    packed = packing.pack(value);
  } catch (const PACKING::TooDeep&) {
    return 0;  // an integer on the last level, which a packed one would exceed
  }
  const std::string bytes_of_packed = encoded(packed);
  VORN_CHECK(encoded(packing.pack(packing.unpack(packed))) == bytes_of_packed);
  return 0;
}
