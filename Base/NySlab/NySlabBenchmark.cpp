// What a small object costs: from the thread's cache, through the depot, and from the heap for
// comparison.
#include "Base/NySlab/NySlab.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstdlib>

namespace {

void slabPair(benchmark::State& state) {
  const auto bytes = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    void* p = NySlab::slabAlloc(bytes);
    benchmark::DoNotOptimize(p);
    NySlab::slabFree(p, bytes);
  }
}
BENCHMARK(slabPair)->Arg(32)->Arg(256)->Arg(2048)->ThreadRange(1, 2);

void heapPair(benchmark::State& state) {
  const auto bytes = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    void* p = ::operator new(bytes);
    benchmark::DoNotOptimize(p);
    ::operator delete(p);
  }
}
BENCHMARK(heapPair)->Arg(32)->Arg(256)->Arg(2048)->ThreadRange(1, 2);

// Many at once: every magazine goes through the depot.
void slabBurst(benchmark::State& state) {
  std::array<void*, 512> held{};
  for (auto _ : state) {
    for (void*& p : held) {
      p = NySlab::slabAlloc(64);
    }
    for (void* p : held) {
      NySlab::slabFree(p, 64);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(held.size()));
}
BENCHMARK(slabBurst)->ThreadRange(1, 2);

}  // namespace

BENCHMARK_MAIN();
