/// The primitives of the value encoding, per value: overwriting (a buffer in use), appending (a new buffer), reading,
/// and the checking pass.
#include <benchmark/benchmark.h>

#include "proto/value_wire.h"

namespace {

using namespace VORN::PROTO;

constexpr int VALUES = 10000;

int64_t integer(int i, int bytes) {
  static constexpr int64_t OF_SIZE[] = {0, 17, 3000, 300000, 30000000, 2000000000};
  return (OF_SIZE[bytes] - i % 7) * (i % 2 == 0 ? 1 : -1);
}

void fill(PacketBuf& buf, int bytes) {
  for (int i = 0; i < VALUES; ++i) write_int(buf, integer(i, bytes));
}

void per_value(benchmark::State& state) {
  state.counters["per_value"] =
      benchmark::Counter(VALUES, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void write_int_over(benchmark::State& state) {
  PacketBuf buf;
  fill(buf, static_cast<int>(state.range(0)));
  write_double(buf, 0);
  for (auto _ : state) {
    buf.reset();
    fill(buf, static_cast<int>(state.range(0)));
    benchmark::DoNotOptimize(buf.data().data());
  }
  per_value(state);
}
BENCHMARK(write_int_over)->DenseRange(1, 5);

void write_int_behind(benchmark::State& state) {
  for (auto _ : state) {
    PacketBuf buf;
    fill(buf, static_cast<int>(state.range(0)));
    benchmark::DoNotOptimize(buf.data().data());
  }
  per_value(state);
}
BENCHMARK(write_int_behind)->DenseRange(1, 5);

void write_double_over(benchmark::State& state) {
  PacketBuf buf;
  for (auto _ : state) {
    buf.reset();
    for (int i = 0; i < VALUES; ++i) write_double(buf, i * 0.5);
    benchmark::DoNotOptimize(buf.data().data());
  }
  per_value(state);
}
BENCHMARK(write_double_over);

void write_string_over(benchmark::State& state) {
  PacketBuf buf;
  const std::string text(static_cast<size_t>(state.range(0)), 'x');
  for (auto _ : state) {
    buf.reset();
    for (int i = 0; i < VALUES; ++i) write_utf8str(buf, text.data(), static_cast<uint32_t>(text.size()));
    benchmark::DoNotOptimize(buf.data().data());
  }
  per_value(state);
}
BENCHMARK(write_string_over)->Arg(3)->Arg(12)->Arg(30)->Arg(60)->Arg(1000);

void read_int(benchmark::State& state) {
  PacketBuf buf;
  fill(buf, static_cast<int>(state.range(0)));
  for (auto _ : state) {
    buf.set_pos(0);
    WireReader in(buf);
    int64_t value = 0;
    for (int i = 0; i < VALUES; ++i) {
      in.read_int(value);
      benchmark::DoNotOptimize(value);
    }
  }
  per_value(state);
}
BENCHMARK(read_int)->DenseRange(1, 5);

void scan(benchmark::State& state) {
  PacketBuf buf;
  write_type(buf, PTT_ARRAY_START);
  fill(buf, static_cast<int>(state.range(0)));
  write_type(buf, PTT_ARRAY_END);
  buf.set_pos(0);
  for (auto _ : state) {
    ArrayCounts counts;
    WireReader in(buf);
    if (check_value(in, {64, UINT64_MAX, in.data_len()}, counts) != ValueFault::none) {
      state.SkipWithError("refused");
    }
  }
  per_value(state);
}
BENCHMARK(scan)->DenseRange(1, 5);

}  // namespace
