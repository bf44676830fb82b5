// What one publication costs: every record of a full table is read, added to and written.
#include <benchmark/benchmark.h>
#include <unistd.h>
#include <urcu-qsbr.h>

#include <string>

#include "Sfe/Multicast/CounterTableReader.h"
#include "Sfe/Multicast/IntfCounterTable.h"
#include "Sfe/Multicast/MrouteCounterTable.h"
#include "Sfe/OrpSharedMem/EntityManager.h"

namespace Sfe::Multicast {
namespace {

constexpr uint32_t kCapacity = 60000;

Routing::Multicast::Fib::IpGenRouteKey routeKey(uint32_t n) {
  const uint8_t source[4] = {10, 0, 0, 1};
  const uint8_t group[4] = {239, static_cast<uint8_t>(n >> 16), static_cast<uint8_t>(n >> 8),
                            static_cast<uint8_t>(n)};
  using Nynet::AddressFamily;
  return {Nynet::IpGenPrefix(Nynet::IpGenAddr(AddressFamily::kIpv4, source), 32),
          Nynet::IpGenPrefix(Nynet::IpGenAddr(AddressFamily::kIpv4, group), 32)};
}

class FullTable : public benchmark::Fixture {
 public:
  void SetUp(const benchmark::State&) override {
    urcu_qsbr_register_thread();
    const auto manager = OrpSharedMem::getEntityManager(systemName_, false);
    OrpPell::MountInfo info(0);
    info.collectionInfoIs(MrouteCounter::kCollection, kCapacity);
    manager->doMount(path_, MrouteCounter::kTypeName, info);
    table_ = Orp::ptrCast<MrouteCounterTable>(manager->getEntity(path_));
    for (uint32_t n = 0; n < kCapacity; ++n) {
      table_->mrouteIs(MrouteCounter(routeKey(n)));
    }
  }
  void TearDown(const benchmark::State&) override {
    table_ = nullptr;
    urcu_qsbr_unregister_thread();
  }

 protected:
  const std::string systemName_ = "bench" + std::to_string(getpid());
  const std::string path_ =
      MrouteCounterTable::mountPath(Nynet::AddressFamily::kIpv4, L3::VrfName::defaultVrf());
  Orp::Ptr<MrouteCounterTable> table_;
};

BENCHMARK_F(FullTable, publication)(benchmark::State& state) {
  for (auto _ : state) {
    for (uint32_t n = 0; n < kCapacity; ++n) {
      MrouteCounter record = table_->mroute(routeKey(n));
      record.pktsInInc(1);
      record.bytesInInc(100);
      table_->mrouteIs(record);
    }
  }
  state.SetItemsProcessed(state.iterations() * kCapacity);
}

BENCHMARK_F(FullTable, snapshotByAReader)(benchmark::State& state) {
  const MrouteCounterReader reader(systemName_, path_);
  for (auto _ : state) {
    benchmark::DoNotOptimize(reader.snapshot());
  }
  state.SetItemsProcessed(state.iterations() * kCapacity);
}

BENCHMARK_F(FullTable, deleteAllAndFillAgain)(benchmark::State& state) {
  for (auto _ : state) {
    table_->mrouteDelAll();
    for (uint32_t n = 0; n < kCapacity; ++n) {
      table_->mrouteIs(MrouteCounter(routeKey(n)));
    }
    urcu_qsbr_quiescent_state();
  }
  state.SetItemsProcessed(state.iterations() * kCapacity);
}

}  // namespace
}  // namespace Sfe::Multicast

BENCHMARK_MAIN();
