// What a trace statement costs its thread while the text level is off.
#include <benchmark/benchmark.h>

#include <string>

#include "Base/Flit/Clock.h"
#include "Base/Trace.h"

namespace {

void clockAlone(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(Flit::ticks());
  }
}
BENCHMARK(clockAlone);

void traceOneNumber(benchmark::State& state) {
  uint64_t n = 0;
  for (auto _ : state) {
    SFE_TRACE("Bench", 7, "n: ", n);
    ++n;
  }
}
BENCHMARK(traceOneNumber)->ThreadRange(1, 2);

void traceFourNumbers(benchmark::State& state) {
  uint64_t n = 0;
  for (auto _ : state) {
    SFE_TRACE("Bench", 7, "a: ", n, " b: ", n, " c: ", 3, " d: ", 4u);
    ++n;
  }
}
BENCHMARK(traceFourNumbers);

void traceTwoAddresses(benchmark::State& state) {
  const std::string source(16, 's');
  const std::string group(16, 'g');
  for (auto _ : state) {
    SFE_TRACE("Bench", 6, "iif: ", 1ul, ", source: ", source, ", group: ", group);
  }
}
BENCHMARK(traceTwoAddresses);

void readFullRing(benchmark::State& state) {
  for (uint64_t n = 0; n < 2 * Flit::kRingCells; ++n) {
    SFE_TRACE("Bench", 7, "n: ", n);
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(Flit::read());
  }
}
BENCHMARK(readFullRing)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
