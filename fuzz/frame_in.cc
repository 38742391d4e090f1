/// A stream fed to an inbound frame: whole, in chunks, byte by byte, and with the position moved in between.
///
///   n:byte, n bytes of sizes and positions, then the stream
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <tuple>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "proto/packet_frame_in.h"
#include "proto/vorn_runtime_error.h"
#include "test/support/allocations.h"

using namespace VORN;
using namespace VORN::PROTO;
using vorn_fuzz::Input;

namespace {

/// What can be seen of a frame that stopped taking bytes. Refused: there was no memory for the payload.
using Seen = std::tuple<bool, uint64_t, bool, std::string, uint16_t, uint32_t, uint64_t, std::string>;

template <typename ChunkSize>
Seen feed(PacketFrameIn& frame, const std::string& stream, ChunkSize chunk_size) {
  VORN_CHECK(frame.reset() == 0);
  uint64_t offset = 0;
  bool refused = false;
  while (offset < stream.size() && !frame.have_complete_frame() && !frame.is_error() && !refused) {
    const uint64_t n = std::min<uint64_t>(chunk_size(), stream.size() - offset);
    const std::unique_ptr<char[]> chunk(new char[n]);  // a block of its exact size, so that a sanitizer sees its end
    std::copy_n(stream.data() + offset, n, chunk.get());
    try {
      const uint64_t taken = frame.assemble(chunk.get(), n, 0);
      VORN_CHECK(taken <= n);
      VORN_CHECK(taken > 0 || frame.is_error());
      VORN_CHECK(taken == n || frame.have_complete_frame() || frame.is_error());
      offset += taken;
    } catch (const std::bad_alloc&) {
      refused = true;
    } catch (const std::length_error&) {
      refused = true;
    }
  }
  if (refused) return {true, 0, false, "", 0, 0, 0, ""};
  const bool complete = frame.have_complete_frame();
  const char* const message = frame.error_message();
  VORN_CHECK(frame.is_error() == (message != nullptr));
  VORN_CHECK(!complete || (message == nullptr && frame.pos() == frame.payload_end()));
  VORN_CHECK(frame.payload_size() == frame.data_len() && frame.pos() <= frame.data().size());
  return {false,
          offset,
          complete,
          message == nullptr ? "" : message,
          frame.seq(),
          frame.data_len(),
          frame.payload_start(),
          frame.data().substr(0, frame.pos())};
}

void feed_moving(PacketFrameIn& frame, const std::string& stream, Input& moves) {
  frame.reset();
  for (uint64_t offset = 0; offset < stream.size();) {
    if (moves.below(2) != 0) frame.set_pos(moves.number());
    const uint64_t end = std::min<uint64_t>(stream.size(), offset + 1 + moves.number() % 256);
    try {
      const uint64_t taken = frame.assemble(stream.data(), end, offset);
      VORN_CHECK(taken <= end - offset);
      offset += taken;
      if (taken == 0) frame.reset();
    } catch (const std::bad_alloc&) {
      return;
    } catch (const std::length_error&) {
      return;
    } catch (const VornRuntimeError& e) {
      const std::string text = e.what();
      VORN_CHECK(text == "PacketFrameIn::st_accept_payload: data pos inside header (internal error)" ||
                 text == "PacketFrameIn::st_accept_payload: excess payload received (internal error)");
      if (moves.empty()) return;
    }
  }
}

}  // namespace

// libFuzzer allocates with one form of operator new and frees with another; allocations.cc replaces only some.
extern "C" const char* __asan_default_options() {
  return "alloc_dealloc_mismatch=0";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const std::string control = in.bytes(in.byte());
  const std::string stream = in.rest();
  Input moves(reinterpret_cast<const uint8_t*>(control.data()), control.size());
  Input sizes = moves;
  // The announced length takes its memory at once.
  const vorn_test::LimitAllocations limit(PacketBuf::INITIAL_CAPACITY + 0x1000);

  PacketFrameIn fresh;
  const Seen whole = feed(fresh, stream, [&] { return stream.size(); });
  PacketFrameIn used;
  feed_moving(used, stream, moves);
  VORN_CHECK(feed(used, stream, [] { return 1; }) == whole);
  VORN_CHECK(feed(used, stream, [&] { return sizes.empty() ? stream.size() : 1 + sizes.byte() % 32; }) == whole);
  return 0;
}
