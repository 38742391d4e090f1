/// The C++ side of the test that Ruby and C++ read each other's bytes. Works on frames of one value each, from standard
/// input to standard output.
///
///   wire_peer echo               reads frames, decodes and encodes each value, writes frames
///   wire_peer describe           reads frames and writes for each its value in the notation of test/vectors/, the
///                                same with symbols as strings, and the bytes written for the first
///   wire_peer generate SEED N    writes N random values
///   wire_peer check SEED N       reads frames and compares them with those same values
///   wire_peer unpack             reads frames and writes for each its value, unpacked, in the notation of
///                                test/vectors/, and the value packed again
///   wire_peer generate-packed SEED N, check-packed SEED N
///                                as generate and check, with values that are packed
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif

#include "proto/packet_frame_in.h"
#include "proto/packet_frame_out.h"
#include "proto/vorn_runtime_error.h"
#include "test/support/packing_notation.h"
#include "test/support/packing_values.h"
#include "test/support/variant_notation.h"
#include "vobject/extract_messages.h"
#include "vobject/render.h"
#include "vobject/vobject.h"

namespace {

using VORN::VObject;
using namespace VORN::PROTO;

class Trees {
 public:
  explicit Trees(uint32_t seed) : engine_(seed) {}

  VObject next() { return value(0); }

 private:
  uint32_t below(uint32_t n) { return static_cast<uint32_t>(engine_() % n); }

  int64_t integer() {
    const uint64_t magnitude = engine_() >> below(64);
    return static_cast<int64_t>(below(2) == 0 ? magnitude : 0 - magnitude);
  }

  std::string bytes() {
    std::string s(below(8) == 0 ? below(300) : below(12), '\0');
    for (char& c : s) c = static_cast<char>(below(256));
    return s;
  }

  VObject value(int depth) {
    switch (below(depth < 6 ? 8 : 6)) {
      case 0: return VObject();
      case 1: return VObject(below(2) == 0);
      case 2:
      case 3: return VObject(integer());
      case 4: return VObject(static_cast<double>(integer()) / 1024.0);
      case 5: return VObject(bytes());
      case 6: {
        VObject vector = VObject::new_vector();
        for (uint32_t n = below(6); n > 0; --n) vector.append(value(depth + 1));
        return vector;
      }
      default: {
        VObject hash = VObject::new_hash();
        for (uint32_t n = below(6); n > 0; --n) {
          const std::string key = bytes();
          hash.gethash()[VORN::string_ref(key)] = value(depth + 1);
        }
        return hash;
      }
    }
  }

  std::mt19937_64 engine_;
};

void write_frame(PacketFrameOut& frame, const VObject& value) {
  frame.set_use_12byte_header(!frame.using_12byte_header());
  frame.reset();
  value.serialize(frame, 64);
  frame.compute_frame_header();
  std::cout.write(frame.data().data(), static_cast<std::streamsize>(frame.pos()));
  frame.inc_seq();
}

/// Calls `use` with each frame of standard input. False: the stream is damaged.
template <typename Use>
bool each_frame(Use use) {
  PacketFrameIn frame;
  frame.reset();
  char chunk[4093];
  while (std::cin.read(chunk, sizeof chunk), std::cin.gcount() > 0) {
    const uint64_t length = static_cast<uint64_t>(std::cin.gcount());
    for (uint64_t offset = 0; offset < length;) {
      offset += frame.assemble(chunk, length, offset);
      if (frame.is_error()) return false;
      if (!frame.have_complete_frame()) continue;
      use(frame);
      frame.reset();
    }
  }
  return true;
}

/// Calls `use` with the value of each frame of standard input. False: the stream is damaged.
template <typename Use>
bool each_value(Use use) {
  std::vector<VObject> messages;
  return each_frame([&](PacketFrameIn& frame) {
    messages.clear();
    proto_extract_messages(frame, messages);
    for (const VObject& message : messages) use(message);
  });
}

/// The frame's only value in notation, or "!" and the fault. `written` gets the bytes written for it, or nil.
std::string description_of(PacketFrameIn& frame, bool symbols_as_strings, VObject& written) {
  try {
    VObject value;
    frame.set_pos(frame.payload_start());
    VObject::deserialize(frame, frame.payload_end(), value, symbols_as_strings, 64);
    if (frame.pos() != frame.payload_end()) return "!more than one value";
    PacketBuf out;
    value.serialize(out, 64);
    written = out.data();
    return vorn_test::notation_of(value);
  } catch (const VORN::VornRuntimeError& e) {
    return std::string("!") + e.what();
  }
}

/// Reads a value from each frame of standard input, and compares them with those that are expected next.
template <typename Next, typename Read>
int check(int count, Next next, Read read) {
  int seen = 0;
  int wrong = 0;
  const bool whole = each_value([&](const VObject& message) {
    const VObject expected = next();
    const VObject value = read(message);
    if (++seen > count || value == expected || ++wrong > 3) return;
    std::string text = "value " + std::to_string(seen) + "\n  got      ";
    VORN::render(message, text);
    text += "\n  expected ";
    VORN::render(expected, text);
    std::cerr << text << "\n";
  });
  std::cerr << seen << " values came back, " << wrong << " of them changed\n";
  return whole && seen == count && wrong == 0 ? 0 : 1;
}

int exchange(const std::string& mode, uint32_t seed, int count) {
  const VORN::PACKING::Packing& packing = vorn_test::table_packing();
  Trees trees(seed);
  vorn_test::PackingValues values(seed);
  PacketFrameOut out;
  if (mode == "generate") {
    for (int i = 0; i < count; ++i) write_frame(out, trees.next());
    return 0;
  }
  if (mode == "generate-packed") {
    for (int i = 0; i < count; ++i) write_frame(out, packing.pack(values.next()));
    return 0;
  }
  if (mode == "check") {
    return check(
        count, [&] { return trees.next(); }, [](const VObject& message) { return message; });
  }
  if (mode == "check-packed") {
    return check(
        count, [&] { return values.next(); }, [&](const VObject& message) { return packing.unpack(message); });
  }
  return 2;
}

}  // namespace

int main(int argc, char** argv) try {
#ifdef _WIN32
  // Or each 0A would be written as 0D 0A, and 1A would end the input.
  _setmode(0, _O_BINARY);
  _setmode(1, _O_BINARY);
#endif
  std::ios::sync_with_stdio(false);
  const std::string mode = argc > 1 ? argv[1] : "";
  PacketFrameOut out;
  if (mode == "echo" && argc == 2) {
    return each_value([&](const VObject& value) { write_frame(out, value); }) ? 0 : 1;
  }
  if (mode == "describe" && argc == 2) {
    const bool whole = each_frame([&](PacketFrameIn& frame) {
      VObject written;
      VObject unused;
      const std::string value = description_of(frame, false, written);
      const std::string as_strings = description_of(frame, true, unused);
      write_frame(out, VObject(VORN::VObjectVector{value, as_strings, written}));
    });
    return whole ? 0 : 1;
  }
  if (mode == "unpack" && argc == 2) {
    const VORN::PACKING::Packing& packing = vorn_test::table_packing();
    const bool whole = each_value([&](const VObject& message) {
      const VObject value = packing.unpack(message);
      write_frame(out, VObject(VORN::VObjectVector{vorn_test::packing_notation_of(value), packing.pack(value)}));
    });
    return whole ? 0 : 1;
  }
  if (argc == 4) {
    const uint32_t seed = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));
    const int count = static_cast<int>(std::strtol(argv[3], nullptr, 10));
    const int status = exchange(mode, seed, count);
    if (status < 2) return status;
  }
  std::cerr << "usage: wire_peer echo | describe | unpack | {generate,check}[-packed] SEED N\n";
  return 2;
} catch (const std::exception& e) {
  std::cerr << "wire_peer: " << e.what() << "\n";
  return 1;
}
