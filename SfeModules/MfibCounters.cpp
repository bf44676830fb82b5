// Counter entries and their publication into shared memory; reading an event counter by name.

#include <urcu-qsbr.h>

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Base/RcuAnnotate.h"
#include "SfeModules/CounterEntries.h"
#include "SfeModules/Mfib.h"

namespace SfeModules {

namespace {

// `pktsQueued` is a change and may be negative: it alone is widened with its sign, so that held and
// freed add up to 0 also across publications.
uint64_t widenedChange(uint32_t change) {
  return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(change)));
}

// How publication reaches one of the two shared tables.
struct IntfRecords {
  static constexpr size_t kQueuedField = 4;  // of Counts
  using Entry = IntfCounterEntry;
  using Counts = decltype(Entry{}.counts());

  Nynet::IntfId sharedKey(uint64_t id) const { return Nynet::IntfId(id); }
  void del(Nynet::IntfId id) const { table.intfDel(id); }
  Sfe::Multicast::IntfCounter read(Nynet::IntfId id) const {
    return readRecord(table, &Table::intf, id);
  }
  Sfe::Multicast::IntfCounter zeroed(Nynet::IntfId id) const { return intfCounter(id); }
  void write(const Sfe::Multicast::IntfCounter& record) const { table.intfIs(record); }
  static void add(Sfe::Multicast::IntfCounter& record, const Counts& counts) {
    const auto [pktsIn, pktsOut, bytesIn, bytesOut, pktsQueued, pktsDropped] = counts;
    record.pktsInInc(pktsIn);
    record.pktsOutInc(pktsOut);
    record.bytesInInc(bytesIn);
    record.bytesOutInc(bytesOut);
    record.pktsQueuedInc(widenedChange(pktsQueued));
    record.pktsDroppedInc(pktsDropped);
  }

  using Table = Sfe::Multicast::IntfCounterTable;
  Table& table;
};

struct MrouteRecords {
  static constexpr size_t kQueuedField = 3;  // of Counts
  using Entry = MrouteCounterEntry;
  using Counts = decltype(Entry{}.counts());
  using SharedKey = Routing::Multicast::Fib::IpGenRouteKey;

  SharedKey sharedKey(const MfibKey& key) const { return ipGenRouteKey(af, key); }
  void del(const SharedKey& key) const { table.mrouteDel(key); }
  Sfe::Multicast::MrouteCounter read(const SharedKey& key) const {
    return readRecord(table, &Table::mroute, key);
  }
  Sfe::Multicast::MrouteCounter zeroed(const SharedKey& key) const { return mrouteCounter(key); }
  void write(const Sfe::Multicast::MrouteCounter& record) const { table.mrouteIs(record); }
  static void add(Sfe::Multicast::MrouteCounter& record, const Counts& counts) {
    const auto [pktsIn, bytesIn, wrongVif, pktsQueued, pktsDropped] = counts;
    record.pktsInInc(pktsIn);
    record.bytesInInc(bytesIn);
    record.wrongVifInc(wrongVif);
    record.pktsQueuedInc(widenedChange(pktsQueued));
    record.pktsDroppedInc(pktsDropped);
  }

  using Table = Sfe::Multicast::MrouteCounterTable;
  Table& table;
  uint32_t af;
};

// An entry that was published and unlinked, with the counts that were.
template <class Records, class Key>
struct Published {
  Key key;
  std::shared_ptr<typename Records::Entry> entry;
  typename Records::Counts counts;
};

// A worker that found an entry before it was unlinked may have counted into it since. After a grace
// period none does; what came in between is added now.
template <class Records, class Key>
void publishLate(const Records& records, const std::vector<Published<Records, Key>>& published) {
  constexpr size_t kAhead = 8;  // entries that no cache holds any more are fetched so early
  for (size_t at = 0; at < published.size(); ++at) {
    if (at + kAhead < published.size()) {
      __builtin_prefetch(published[at + kAhead].entry.get());
    }
    const auto& [key, entry, before] = published[at];
    if (entry->state == kCounterWithdrawn) {
      records.del(records.sharedKey(key));
      continue;
    }
    auto late = entry->counts();
    if (late == before) {
      continue;
    }
    const auto sharedKey = records.sharedKey(key);
    for (size_t i = 0; i < late.size(); ++i) {
      late[i] -= before[i];
      // Workers that count into one entry may set a field back; only the held packets truly fall.
      if (i != Records::kQueuedField && static_cast<int32_t>(late[i]) < 0) {
        late[i] = 0;
      }
    }
    auto record = records.read(sharedKey);
    if (record == decltype(record){}) {
      record = records.zeroed(sharedKey);
    }
    Records::add(record, late);
    records.write(record);
  }
}

template <class Records, class Key>
void publish(NyRcuHt<Key, std::shared_ptr<typename Records::Entry>>& table,
             const Records& records) {
  std::vector<Published<Records, Key>> published;
  for (auto it = table.begin(); it != table.end();) {
    const auto current = it;
    __builtin_prefetch(current.value().get());
    ++it;
    const std::shared_ptr<typename Records::Entry> entry = current.value();
    const auto sharedKey = records.sharedKey(current.key());
    const uint32_t state = entry->state;
    if (state == kCounterWithdrawn) {
      records.del(sharedKey);
      continue;
    }
    auto record = records.read(sharedKey);
    if (record == decltype(record){} || state == kCounterRevived) {
      record = records.zeroed(sharedKey);
    }
    const auto counts = entry->counts();
    Records::add(record, counts);
    records.write(record);
    published.push_back({current.key(), entry, counts});
    table.eraseNode(current);
  }
  if (!published.empty()) {
    SFE_RCU_QUIESCENT();
    urcu_qsbr_synchronize_rcu();
    publishLate(records, published);
  }
}

}  // namespace

std::shared_ptr<IntfCounterEntry> Mfib::forceLookupIntfCtrUpdates(uint64_t intf) {
  return lookupOrCreate(*intfCounterTable_, intf);
}

std::shared_ptr<MrouteCounterEntry> Mfib::forceLookupMrtCtrUpdates(const MfibKey& key) {
  return lookupOrCreate(*mrouteCounterTable_, key);
}

void updatePellIntfCounters(void* module) {
  auto* mfib = static_cast<Mfib*>(module);
  if (mfib == nullptr || !mfib->pellIntfCounterTable_ || mfib->intfCounterTable_ == nullptr) {
    return;
  }
  publish(*mfib->intfCounterTable_, IntfRecords{*mfib->pellIntfCounterTable_});
}

void updatePellMrouteCounters(void* module) {
  auto* mfib = static_cast<Mfib*>(module);
  if (mfib == nullptr || !mfib->pellMrouteCounterTable_ || mfib->mrouteCounterTable_ == nullptr) {
    return;
  }
  publish(*mfib->mrouteCounterTable_, MrouteRecords{*mfib->pellMrouteCounterTable_, mfib->af_});
}

int Mfib::getCounter(Context* ctx, const std::string& name) const {
  const std::array<std::pair<std::string_view, uint32_t>, 6> counters = {{
      {"nonMcastIIFMessagesCounter_", nonMcastIifCounterId_},
      {"wrongVifMessagesCounter_", wrongVifCounterId_},
      {"wholePktMessagesCounter_", wholePktCounterId_},
      {"noCacheMessagesCounter_", noCacheCounterId_},
      {"noCacheMessagesResolvedCounter_", noCacheResolvedCounterId_},
      {"noCacheMessagesExpiredCounter_", noCacheExpiredCounterId_},
  }};
  for (const auto& [counterName, id] : counters) {
    if (counterName == name) {
      return static_cast<int>(bessCounter(ctx->wid, id));
    }
  }
  return -1;
}

}  // namespace SfeModules
