// The gauges and totals of an instance, in the names and units that a metrics server expects.

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Bess/StateTable.h"
#include "Sfe/Multicast/CounterTableReader.h"
#include "Sfe/OrpSharedMem/EntityManager.h"
#include "SfeModules/AddressText.h"
#include "SfeModules/CounterEntries.h"
#include "SfeModules/Mfib.h"
#include "SfeModules/MfibStates.h"

namespace SfeModules {

namespace {

constexpr unsigned long kMaxRouteSeries = 100000;
// Totals of event counters are kept by worker and counter, those of interfaces by id and field.
constexpr uint64_t kIntfTotals = uint64_t{1} << 32;

std::string label(std::string_view name, std::string_view value) {
  std::string text(name);
  text += "=\"";
  for (const char c : value) {
    if (c == '\\' || c == '"') {
      text += '\\';
    }
    text += c;
  }
  return text + '"';
}

// One metric's rows follow each other.
class Rows {
 public:
  explicit Rows(std::string common) : common_(std::move(common)) {}

  void gauge(const char* name, const char* help, uint64_t value, const std::string& labels = "") {
    row("gauge", name, help, value, labels);
  }
  void counter(const char* name, const char* help, uint64_t value, const std::string& labels = "") {
    row("counter", name, help, value, labels);
  }
  std::string take() { return table_.take(); }

 private:
  void row(const char* type,
           const char* name,
           const char* help,
           uint64_t value,
           const std::string& labels) {
    table_.row(type, name, help, labels.empty() ? common_ : common_ + "," + labels, value);
  }

  const std::string common_;
  bess::StateTable table_{{"type", "name", "help", "labels", "value"}};
};

// What is counted for an interface, one metric for each field of its record.
struct IntfMetric {
  uint64_t (Sfe::Multicast::IntfCounter::*field)() const;
  const char* name;
  const char* help;
};
constexpr std::array<IntfMetric, 5> kIntfMetrics = {{
    {&Sfe::Multicast::IntfCounter::pktsIn, "mfib_interface_receive_packets_total",
     "Packets that arrived on the interface"},
    {&Sfe::Multicast::IntfCounter::bytesIn, "mfib_interface_receive_bytes_total",
     "Bytes that arrived on the interface"},
    {&Sfe::Multicast::IntfCounter::pktsOut, "mfib_interface_transmit_packets_total",
     "Packets that were sent to the interface"},
    {&Sfe::Multicast::IntfCounter::bytesOut, "mfib_interface_transmit_bytes_total",
     "Bytes that were sent to the interface"},
    {&Sfe::Multicast::IntfCounter::pktsDropped, "mfib_interface_dropped_packets_total",
     "Packets that arrived on the interface and were dropped"},
}};

template <class Event>
uint64_t total(MonotoneTotals& totals, const EventCounts<Event>& counts, Event event) {
  uint64_t sum = 0;
  for (unsigned wid = 0; wid < kMaxCounterRows; ++wid) {
    const uint32_t id = counts.id(event);
    sum += totals.total({wid, id}, bessCounter(static_cast<int>(wid), id));
  }
  return sum;
}

// "drop_ttl" is the drop reason "ttl".
constexpr std::string_view kDropPrefix = "drop_";

void addFates(MonotoneTotals& totals, const PacketFates& fates, Rows& rows) {
  const auto packets = [&](const char* metric, const char* help, Fate fate) {
    rows.counter(metric, help, total(totals, fates, fate));
  };
  packets("mfib_forwarded_packets_total", "Packets that a route forwarded", Fate::kForwarded);
  packets("mfib_copied_packets_total", "Copies made for further interfaces", Fate::kCopied);
  packets("mfib_copy_failures_total", "Copies that no buffer was left for", Fate::kCopyFailed);
  packets("mfib_passed_packets_total", "Packets passed on unchanged by gate 0", Fate::kPassed);
  for (size_t i = 0; i < static_cast<size_t>(Fate::kCount); ++i) {
    const auto fate = static_cast<Fate>(i);
    const std::string_view name = counterName(fate);
    if (name.starts_with(kDropPrefix)) {
      rows.counter("mfib_dropped_packets_total", "Packets dropped, by reason",
                   total(totals, fates, fate), label("reason", name.substr(kDropPrefix.size())));
    }
  }
}

void addNotifications(MonotoneTotals& totals, const NotificationCounts& counts, Rows& rows) {
  struct Kind {
    Notification event;
    const char* type;
  };
  for (const Kind& kind :
       {Kind{Notification::kNoCache, "nocache"}, Kind{Notification::kWrongVif, "wrongvif"},
        Kind{Notification::kWholePkt, "wholepkt"}}) {
    rows.counter("mfib_notifications_total", "Notifications to the control plane, by type",
                 total(totals, counts, kind.event), label("type", kind.type));
  }
  for (const Kind& kind : {Kind{Notification::kNoCacheSuppressed, "nocache"},
                           Kind{Notification::kWrongVifSuppressed, "wrongvif"}}) {
    rows.counter("mfib_notifications_suppressed_total",
                 "Notifications that a rate limit held back, by type",
                 total(totals, counts, kind.event), label("type", kind.type));
  }
}

void addCache(MonotoneTotals& totals,
              const NoCachePacketManager& cache,
              const PacketFates& fates,
              Rows& rows) {
  rows.gauge("mfib_cache_entries", "Flows for which packets are held", cache.entryCount());
  rows.gauge("mfib_cache_packets", "Packets held until their route comes", cache.packetCount());
  rows.gauge("mfib_cache_limit_entries", "Flows for which packets may be held",
             cache.maxUnresolvedCacheEntries_.load(std::memory_order_relaxed));
  rows.gauge("mfib_cache_limit_packets", "Packets that may be held for one flow",
             cache.maxUnresolvedPktBuffers_.load(std::memory_order_relaxed));
  const auto packets = [&](const char* metric, const char* help, Fate fate) {
    rows.counter(metric, help, total(totals, fates, fate));
  };
  packets("mfib_cache_held_packets_total", "Packets that were held", Fate::kHeld);
  packets("mfib_cache_reinjected_packets_total", "Held packets whose route came",
          Fate::kReinjected);
  packets("mfib_cache_expired_packets_total", "Held packets whose route never came",
          Fate::kDropExpired);
  packets("mfib_cache_rejected_packets_total", "Packets that a full cache did not take",
          Fate::kDropCacheFull);
}

// Interfaces that packets go to need not be enabled for multicast: the shared table has them all.
void addIntfs(MonotoneTotals& totals, const std::string& path, Rows& rows) {
  const Sfe::Multicast::CounterTableReader<Sfe::Multicast::IntfCounter> reader(
      OrpSharedMem::systemNameFromEnv(), path);
  std::vector<Sfe::Multicast::IntfCounter> records = reader.snapshot();
  std::sort(records.begin(), records.end(),
            [](const auto& a, const auto& b) { return a.intfId() < b.intfId(); });
  for (size_t field = 0; field < kIntfMetrics.size(); ++field) {
    const IntfMetric& metric = kIntfMetrics[field];
    for (const auto& record : records) {
      const Nynet::IntfId id = record.intfId();
      rows.counter(metric.name, metric.help,
                   totals.total({id.value(), kIntfTotals + field}, (record.*metric.field)()),
                   label("interface", id.stringValue()));
    }
  }
}

struct RouteSeries {
  std::string labels;
  Sfe::Multicast::MrouteCounter record;
};

void addRouteSeries(const std::vector<RouteSeries>& series, Rows& rows) {
  for (const RouteSeries& route : series) {
    rows.counter("mfib_route_packets_total", "Packets of the flow that met a route",
                 route.record.pktsIn(), route.labels);
  }
  for (const RouteSeries& route : series) {
    rows.counter("mfib_route_bytes_total", "Bytes of the flow that met a route",
                 route.record.bytesIn(), route.labels);
  }
}

}  // namespace

std::string MfibMetrics::text(Mfib& mfib, const std::string& arg) {
  const unsigned long routes =
      bess::StateArgs(arg, 0, {"routes"}, "[routes=N]").number("routes", 0, kMaxRouteSeries);
  Rows rows(label("vrf", mfib.vrfName_) + "," + label("family", mfib.ipv4() ? "ipv4" : "ipv6"));
  rows.gauge("mfib_routes", "Routes, by type", mfib.routesByType_[Mfib::kSourceGroup],
             label("type", "sg"));
  rows.gauge("mfib_routes", "Routes, by type", mfib.routesByType_[Mfib::kAnySource],
             label("type", "starg"));
  rows.gauge("mfib_interfaces", "Interfaces enabled for multicast",
             mfib.multicastIntfTable_->size());
  addFates(mfib.totals_, mfib.fates_, rows);
  addNotifications(mfib.totals_, mfib.notifications_, rows);
  addCache(mfib.totals_, *mfib.noCacheMgr_, mfib.fates_, rows);
  addIntfs(mfib.totals_, mfib.pellIntfCounterTable_->path(), rows);

  std::vector<RouteSeries> series;
  for (auto it = mfib.mfib_->begin(); it != mfib.mfib_->end() && series.size() < routes; ++it) {
    const MfibKey& key = it.key();
    series.push_back({label("source", numericAddr(key.source.data(), mfib.ipv4())) + "," +
                          label("group", numericAddr(key.group.data(), mfib.ipv4())),
                      mfib.mrouteRecord(ipGenRouteKey(mfib.af_, key))});
  }
  addRouteSeries(series, rows);
  return rows.take();
}

}  // namespace SfeModules
