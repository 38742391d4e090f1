/// Rendering, and interning from one thread and from two, beside Boost's flyweights, which also keep one copy of a
/// text.
#include <benchmark/benchmark.h>

#include <boost/flyweight.hpp>
#include <boost/flyweight/no_tracking.hpp>
#include <string>
#include <vector>

#include "bench/native/documents.h"
#include "vobject/render.h"

namespace {

using VORN::VObject;

void render_records(benchmark::State& state) {
  const VObject& records = bench::documents()[1].value;
  std::string out;
  for (auto _ : state) {
    out.clear();
    VORN::render(records, out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(out.size()));
}
BENCHMARK(render_records)->Unit(benchmark::kMicrosecond);

std::vector<std::string> names(int64_t count) {
  std::vector<std::string> all;
  all.reserve(static_cast<size_t>(count));
  for (int64_t i = 0; i < count; ++i) all.push_back("symbol_" + std::to_string(i));
  return all;
}

// Of a protocol, of a large program, and more than the caches hold.
void sizes(benchmark::internal::Benchmark* bench) {
  bench->ArgName("names")->Arg(100)->Arg(1000)->Arg(100000)->Threads(1)->Threads(2)->UseRealTime();
}

/// Interning names that are already known: the common case.
void intern_known(benchmark::State& state) {
  const std::vector<std::string> all = names(state.range(0));
  for (const std::string& name : all) VObject::intern(name);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(VObject::intern(all[i]));
    if (++i == all.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(intern_known)->Name("intern/vorn")->Apply(sizes);

void intern_flyweight(benchmark::State& state) {
  // Kept for good, as our names are: counting the users of each would cost more.
  using Name = boost::flyweight<std::string, boost::flyweights::no_tracking>;
  const std::vector<std::string> all = names(state.range(0));
  for (const std::string& name : all) Name{name};
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(&Name(all[i]).get());
    if (++i == all.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(intern_flyweight)->Name("intern/flyweight")->Apply(sizes);

void lookup(benchmark::State& state) {
  std::vector<uint32_t> ids;
  for (const std::string& name : names(state.range(0))) ids.push_back(VObject::intern(name));
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(VObject::sym_lookup(ids[i]));
    if (++i == ids.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(lookup)->Apply(sizes);

}  // namespace
