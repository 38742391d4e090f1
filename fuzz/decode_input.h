/// What the decoding targets make of their input: a buffer of arbitrary bytes, and the arguments
/// of the decoder.
///
///   flags              which of the following are there; what is not there has its default
///   [payload:number]   a frame whose payload is cut there, the other bytes being stored behind it
///   [start:number] [end:number] [maxdepth:number]
///   bytes              up to the end of the input
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>

#include "fuzz/input.h"
#include "proto/packet_buf.h"
#include "proto/packet_frame_in.h"
#include "proto/transport_type.h"
#include "test/support/buffers.h"
#include "vobject/vobject.h"

namespace vorn_fuzz {

enum DecodeFlag : uint8_t { IN_FRAME = 1, WITH_START = 2, WITH_END = 4, WITH_MAXDEPTH = 8, SYMBOLS_AS_STRINGS = 16 };

struct DecodeInput {
  std::unique_ptr<VORN::PROTO::PacketBuf> buf;
  uint64_t start;
  uint64_t end;
  uint32_t maxdepth = 64;
  bool symbols_as_strings;

  DecodeInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const uint8_t flags = in.byte();
    const uint64_t payload = flags & IN_FRAME ? in.number() : 0;
    const uint64_t start_offset = flags & WITH_START ? in.number() : 0;
    const uint64_t end_offset = flags & WITH_END ? in.number() : 0;
    if (flags & WITH_MAXDEPTH) maxdepth = bounded(static_cast<uint32_t>(in.number()));
    const std::string bytes = in.rest();
    if (flags & IN_FRAME) {
      auto frame = std::make_unique<VORN::PROTO::PacketFrameIn>();
      vorn_test::fill_frame(*frame, bytes, std::min<uint64_t>(payload, bytes.size()));
      buf = std::move(frame);
    } else {
      buf = std::make_unique<VORN::PROTO::PacketBuf>();
      vorn_test::fill(*buf, bytes);
    }
    start = flags & WITH_START ? start_offset : buf->payload_start();
    end = flags & WITH_END ? end_offset : buf->payload_end();
    symbols_as_strings = (flags & SYMBOLS_AS_STRINGS) != 0 || !symbols_left(bytes);
    buf->set_pos(start);
  }

 private:
  /// Positive limits are kept low enough for the stack.
  static uint32_t bounded(uint32_t maxdepth) {
    return maxdepth < 0x80000000U ? std::min<uint32_t>(maxdepth, 2000) : maxdepth;
  }

  /// Names of symbols are never freed, so a process decodes a bounded number.
  static bool symbols_left(const std::string& bytes) {
    static int64_t left = 300000;
    left -= std::count(bytes.begin(), bytes.end(), static_cast<char>(VORN::PROTO::PTT_SYMBOL));
    return left > 0;
  }
};

}  // namespace vorn_fuzz
