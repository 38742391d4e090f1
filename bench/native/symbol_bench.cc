/// Rendering, and interning from one thread and from two.
#include <benchmark/benchmark.h>

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

const std::vector<std::string>& names() {
  static const std::vector<std::string> all = [] {
    std::vector<std::string> v;
    v.reserve(1000);
    for (int i = 0; i < 1000; ++i) v.push_back("symbol_" + std::to_string(i));
    return v;
  }();
  return all;
}

/// Interning names that are already known: the common case.
void intern_known(benchmark::State& state) {
  for (const std::string& name : names()) VObject::intern(name);
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(VObject::intern(names()[i++ % names().size()]));
}
BENCHMARK(intern_known)->Threads(1)->Threads(2);

void lookup(benchmark::State& state) {
  const uint32_t id = VObject::intern(names()[0]);
  for (auto _ : state) benchmark::DoNotOptimize(VObject::sym_lookup(id));
}
BENCHMARK(lookup)->Threads(1)->Threads(2);

}  // namespace
