/// Assembling a 1 MB frame from chunks, compared with a plain memcpy of the same bytes in the same chunks.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "proto/packet_frame_in.h"
#include "proto/packet_frame_out.h"

namespace {

using namespace VORN::PROTO;

const std::string& stream() {
  static const std::string bytes = [] {
    PacketFrameOut frame;
    frame.reset();
    const std::string payload(1 << 20, 'p');
    frame.write_bytes(payload.data(), payload.size());
    frame.compute_frame_header();
    return frame.data();
  }();
  return bytes;
}

void assemble(benchmark::State& state) {
  const std::string& bytes = stream();
  const uint64_t chunk = static_cast<uint64_t>(state.range(0));
  PacketFrameIn frame;
  for (auto _ : state) {
    frame.reset();
    for (uint64_t at = 0; at < bytes.size(); at += chunk) {
      frame.assemble(bytes.data() + at, std::min<uint64_t>(chunk, bytes.size() - at), 0);
    }
    if (!frame.have_complete_frame()) state.SkipWithError("not complete");
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}
BENCHMARK(assemble)->Arg(64 << 10)->Arg(1460);

void copy(benchmark::State& state) {
  const std::string& bytes = stream();
  const uint64_t chunk = static_cast<uint64_t>(state.range(0));
  std::string to(bytes.size(), '\0');
  for (auto _ : state) {
    for (uint64_t at = 0; at < bytes.size(); at += chunk) {
      std::memcpy(&to[at], bytes.data() + at, std::min<uint64_t>(chunk, bytes.size() - at));
      benchmark::ClobberMemory();
    }
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}
BENCHMARK(copy)->Arg(64 << 10)->Arg(1460);

}  // namespace
