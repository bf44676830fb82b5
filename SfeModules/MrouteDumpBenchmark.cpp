// How long a read of the state file takes: the text of N routes.
#include "SfeModules/MrouteDump.h"

#include <benchmark/benchmark.h>
#include <rte_eal.h>
#include <urcu-qsbr.h>

#include <array>
#include <cstdio>
#include <cstdlib>

#include "SfeModules/Mfib.h"
#include "SfeModules/Testing/MfibFixture.h"

namespace SfeModules {
namespace {

void dumpRoutes(benchmark::State& state) {
  const auto routes = static_cast<uint32_t>(state.range(0));
  auto* mfib = static_cast<Mfib*>(Mfib::create());
  sfe::pb::MfibArg arg;
  arg.set_vrfname("default");
  arg.set_af(kAfIpv4);
  if (mfib->Init(arg).has_error()) {
    state.SkipWithError("no instance");
    return;
  }
  for (uint32_t n = 0; n < routes; ++n) {
    const std::array<uint8_t, 4> source = {10, 0, 0, 2};
    const std::array<uint8_t, 4> group = {239, static_cast<uint8_t>(n >> 16),
                                          static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
    auto entry = MfibPvSet::make(4);
    entry->iif = Nynet::IntfId::fromName("Ethernet1");
    for (uint32_t i = 0; i < entry->numOifs; ++i) {
      entry->oifs()[i] = Nynet::IntfId::fromName("Ethernet" + std::to_string(i + 2));
      entry->oifGates()[i] = i + 1;
    }
    MfibTestPeer::routes(*mfib).insert(MfibKey::of(source.data(), group.data(), kIpv4AddrLen),
                                       std::move(entry));
  }
  size_t bytes = 0;
  for (auto _ : state) {
    const std::string text = getMroutes(mfib, kAfIpv4);
    bytes = text.size();
    benchmark::DoNotOptimize(text.data());
  }
  state.SetItemsProcessed(state.iterations() * routes);
  state.counters["bytes"] = static_cast<double>(bytes);
  mfib->DeInit();
  delete mfib;
}
BENCHMARK(dumpRoutes)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace SfeModules

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  std::array<const char*, 10> eal = {"bench",      "--no-huge", "--no-pci",       "--no-shconf",
                                     "-m",         "512",       "--iova-mode=va", "--no-telemetry",
                                     "--lcores=0", nullptr};
  if (rte_eal_init(static_cast<int>(eal.size() - 1), const_cast<char**>(eal.data())) < 0) {
    std::fprintf(stderr, "DPDK does not start\n");
    return 1;
  }
  setenv("SYSNAME", "mroutedumpbenchmark", 1);
  urcu_qsbr_register_thread();
  benchmark::RunSpecifiedBenchmarks();
  urcu_qsbr_unregister_thread();
  return 0;
}
