#include "proto/frame_header.h"

#include <cassert>
#include <cstddef>

namespace VORN {
namespace PROTO {

namespace {

void put_big_endian(char* out, uint32_t value, unsigned bytes) {
  for (unsigned i = 0; i < bytes; ++i) out[i] = static_cast<char>(value >> (8 * (bytes - 1 - i)));
}

uint32_t get_big_endian(std::string_view frame, size_t at, unsigned bytes) {
  uint32_t value = 0;
  for (size_t i = at; i < at + bytes; ++i) {
    value = value << 8 | (i < frame.size() ? static_cast<uint8_t>(frame[i]) : 0U);
  }
  return value;
}

bool has_12byte_layout(std::string_view frame) {
  return frame.size() >= 2 && (static_cast<uint8_t>(frame[1]) & PF_LAYOUT_BIT) == 0;
}

}  // namespace

uint64_t encode_frame_header(const FrameHeader& header, bool twelve_bytes, char* out) {
  assert(header.data_len <= (twelve_bytes ? PF12_MAX_DATA_LEN : PF8_MAX_DATA_LEN));
  put_big_endian(out, PF_START_MARKER, 1);
  put_big_endian(out + 1, twelve_bytes ? PF12_LAYOUT_BYTE : PF8_LAYOUT_BYTE, 1);
  put_big_endian(out + 2, header.seq, 2);
  if (!twelve_bytes) {
    put_big_endian(out + 4, header.data_len, 4);
    return PF8_HEADER_LEN;
  }
  put_big_endian(out + 4, header.data_len, 3);
  put_big_endian(out + 7, PF12_PAYLOAD_CHECK, 4);
  put_big_endian(out + 11, PF12_HEADER_CHECK, 1);
  return PF12_HEADER_LEN;
}

uint64_t frame_header_len(std::string_view frame) {
  return has_12byte_layout(frame) ? PF12_HEADER_LEN : PF8_HEADER_LEN;
}

FrameHeader decode_frame_header(std::string_view frame) {
  const unsigned length_bytes = has_12byte_layout(frame) ? 3 : 4;
  return {static_cast<uint16_t>(get_big_endian(frame, 2, 2)), get_big_endian(frame, 4, length_bytes)};
}

bool frame_header_check_passes(std::string_view frame) {
  return !has_12byte_layout(frame) || get_big_endian(frame, 11, 1) == PF12_HEADER_CHECK;
}

bool frame_payload_check_passes(std::string_view frame) {
  return !has_12byte_layout(frame) || get_big_endian(frame, 7, 4) == PF12_PAYLOAD_CHECK;
}

}  // namespace PROTO
}  // namespace VORN
