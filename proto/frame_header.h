/// The two frame header layouts, as constants and as pure functions over bytes. The outbound and the inbound
/// frame share this file and nothing else. All multi-byte fields are big-endian.
///
///   8-byte layout     A5 | 01 | seq:2 | data_len:4
///   12-byte layout    A5 | 00 | seq:2 | data_len:3 | DE AD BE EF | 5A
///
/// Only bit 0 of the layout byte (index 1) tells the layouts apart. The check word and the check byte are
/// fixed values, computed over nothing: peers write and demand exactly these.
#pragma once

#include <cstdint>
#include <string_view>

#include "proto/export.h"

namespace VORN {
namespace PROTO {

/// Bytes of a header, and the most payload bytes that it can announce.
/// @{
constexpr uint64_t PF8_HEADER_LEN = 8;
constexpr uint64_t PF8_MAX_DATA_LEN = 0x7FFFFFFF;
constexpr uint64_t PF12_HEADER_LEN = 12;
constexpr uint64_t PF12_MAX_DATA_LEN = 0xFFFFFF;
/// @}

/// The fixed bytes of the layouts.
/// @{
constexpr uint8_t PF_START_MARKER = 0xA5;
constexpr uint8_t PF8_LAYOUT_BYTE = 0x01;
constexpr uint8_t PF12_LAYOUT_BYTE = 0x00;
constexpr uint8_t PF_LAYOUT_BIT = 0x01;  ///< set: 8 bytes; clear: 12 bytes
constexpr uint32_t PF12_PAYLOAD_CHECK = 0xDEADBEEF;
constexpr uint8_t PF12_HEADER_CHECK = 0x5A;
/// @}

/// What a header says, its fixed fields left out.
struct FrameHeader {
  uint16_t seq;       ///< sequence number
  uint32_t data_len;  ///< payload bytes behind the header
};

/// Writes a header into the first 8 or 12 bytes of `out` and returns how many.
/// REQUIRES: header.data_len at most the layout's maximum.
VORN_API uint64_t encode_frame_header(const FrameHeader& header, bool twelve_bytes, char* out);

/// Read a frame's bytes, from its start marker on, as far as they have arrived: the header's length, what it
/// says, and whether its check fields are right. Bytes that are missing read as zero, and a frame of fewer than 2
/// bytes counts as one of the 8-byte layout, which has no check fields and always passes.
/// @{
VORN_API uint64_t frame_header_len(std::string_view frame);
VORN_API FrameHeader decode_frame_header(std::string_view frame);
VORN_API bool frame_header_check_passes(std::string_view frame);
VORN_API bool frame_payload_check_passes(std::string_view frame);
/// @}

}  // namespace PROTO
}  // namespace VORN
