// What the packet path pays for the table: a look-up hit and miss, a replacement, a walk.
#include "SfeModules/NyUrcuHt.h"

#include <benchmark/benchmark.h>
#include <rte_eal.h>

#include <array>
#include <memory>

namespace {

struct RouteKey {
  std::array<uint8_t, 16> source{};
  std::array<uint8_t, 16> group{};
};
using Routes = NyRcuHt<RouteKey, std::shared_ptr<uint64_t>>;

RouteKey routeKey(uint32_t number) {
  RouteKey key;
  std::memcpy(key.source.data(), &number, sizeof(number));
  key.group[0] = 239;
  return key;
}

std::unique_ptr<Routes> filled(int64_t routes, uint32_t indexed = 1U << 20) {
  auto table = std::make_unique<Routes>(128, true, 128, nullptr, nullptr, indexed);
  for (uint32_t i = 0; i < static_cast<uint32_t>(routes); ++i) {
    table->insert(routeKey(i), std::make_shared<uint64_t>(i));
  }
  return table;
}

void hash(benchmark::State& state) {
  const RouteKey key = routeKey(7);
  uint32_t seed = 0;
  for (auto _ : state) {
    seed = Routes::nyHash(key, seed);
  }
  benchmark::DoNotOptimize(seed);
}

void findHit(benchmark::State& state) {
  auto table = filled(state.range(0));
  uint32_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table->find(routeKey(next++ % static_cast<uint32_t>(state.range(0)))));
  }
}

void findHitByWalk(benchmark::State& state) {
  auto table = filled(state.range(0), 0);
  uint32_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table->find(routeKey(next++ % static_cast<uint32_t>(state.range(0)))));
  }
}

void lookupHitWithCopy(benchmark::State& state) {
  auto table = filled(state.range(0));
  uint32_t next = 0;
  std::shared_ptr<uint64_t> value;
  for (auto _ : state) {
    const uint32_t number = next++ % static_cast<uint32_t>(state.range(0));
    benchmark::DoNotOptimize(table->lookup(routeKey(number), value));
  }
}

void findMiss(benchmark::State& state) {
  auto table = filled(state.range(0));
  uint32_t next = 1U << 31;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table->find(routeKey(next++)));
  }
}

void replace(benchmark::State& state) {
  auto table = filled(state.range(0));
  const auto value = std::make_shared<uint64_t>(1);
  uint32_t next = 0;
  for (auto _ : state) {
    table->insert(routeKey(next++ % static_cast<uint32_t>(state.range(0))), value);
    if (next % 32 == 0) {
      urcu_qsbr_quiescent_state();
    }
  }
}

void walk(benchmark::State& state) {
  auto table = filled(state.range(0));
  for (auto _ : state) {
    for (auto it = table->begin(); it != table->end(); ++it) {
      benchmark::DoNotOptimize(it.value().get());
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

BENCHMARK(hash);
BENCHMARK(findHit)->Arg(16)->Arg(1024)->Arg(65536);
BENCHMARK(findHitByWalk)->Arg(16)->Arg(1024)->Arg(65536);
BENCHMARK(lookupHitWithCopy)->Arg(16)->Arg(1024)->Arg(65536);
BENCHMARK(findMiss)->Arg(1024)->Arg(65536);
BENCHMARK(replace)->Arg(1024);
BENCHMARK(walk)->Arg(1024)->Arg(65536);

}  // namespace

int main(int argc, char** argv) {
  std::array<const char*, 9> args = {"benchmark",      "--no-huge",  "--no-pci",
                                     "--no-shconf",    "-m",         "512",
                                     "--no-telemetry", "--lcores=0", "--log-level=lib.eal:4"};
  if (rte_eal_init(static_cast<int>(args.size()), const_cast<char**>(args.data())) < 0) {
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  urcu_qsbr_register_thread();
  benchmark::RunSpecifiedBenchmarks();
  urcu_qsbr_unregister_thread();
  return 0;
}
