#include "sfectl/Counters.h"

#include <algorithm>

#include "Sfe/Multicast/CounterTableReader.h"
#include "sfectl/Instances.h"

namespace Sfectl {
namespace {

using Sfe::Multicast::CounterMount;
using Sfe::Multicast::CounterTableReader;
using Sfe::Multicast::IntfCounter;
using Sfe::Multicast::MrouteCounter;
using Sfe::Multicast::RecordKind;

bool passes(const CounterFilter& filter, const CounterMount& mount) {
  return (!filter.vrf || *filter.vrf == mount.vrf) && (!filter.af || *filter.af == mount.af);
}

// Tables in the order of their slots are in no order for a reader.
bool before(const IntfCounter& a, const IntfCounter& b) {
  return a.intfId() < b.intfId();
}
bool before(const MrouteCounter& a, const MrouteCounter& b) {
  return a.key().group() != b.key().group() ? a.key().group() < b.key().group()
                                            : a.key().source() < b.key().source();
}

}  // namespace

CounterReport::CounterReport()
    : interfaces_({{"VRF", "vrf"},
                   {"FAMILY", "family"},
                   {"INTF", "intf"},
                   {"RX-PACKETS", "rx_packets"},
                   {"RX-BYTES", "rx_bytes"},
                   {"TX-PACKETS", "tx_packets"},
                   {"TX-BYTES", "tx_bytes"},
                   {"QUEUED", "queued"},
                   {"DROPPED", "dropped"}}),
      routes_({{"VRF", "vrf"},
               {"SOURCE", "src"},
               {"GROUP", "dst"},
               {"PACKETS", "packets"},
               {"BYTES", "bytes"},
               {"WRONG-IF", "wrong_if"},
               {"QUEUED", "queued"},
               {"DROPPED", "dropped"}}) {}

void CounterReport::add(const CounterMount& mount, const IntfCounter& counter) {
  interfaces_.add({mount.vrf, familyText(mount.af), counter.intfId().stringValue(),
                   counter.pktsIn(), counter.bytesIn(), counter.pktsOut(), counter.bytesOut(),
                   counter.pktsQueued(), counter.pktsDropped()});
}

void CounterReport::add(const CounterMount& mount, const MrouteCounter& counter) {
  routes_.add({mount.vrf, counter.key().source().address().stringValue(),
               counter.key().group().address().stringValue(), counter.pktsIn(), counter.bytesIn(),
               counter.wrongVif(), counter.pktsQueued(), counter.pktsDropped()});
}

template <class Record>
void CounterReport::readTable(const std::string& systemName,
                              const std::string& path,
                              const CounterMount& mount) {
  std::vector<uint32_t> unreadable;
  auto records = CounterTableReader<Record>(systemName, path).snapshot(&unreadable);
  std::sort(records.begin(), records.end(),
            [](const Record& a, const Record& b) { return before(a, b); });
  for (const Record& record : records) {
    add(mount, record);
  }
  if (!unreadable.empty()) {
    faults_.push_back(path + ": " + std::to_string(unreadable.size()) +
                      " records could not be read");
  }
}

bool CounterReport::readAll(const std::string& systemName, const CounterFilter& filter) {
  bool any = false;
  for (const auto& table : Sfe::Multicast::listTables(systemName)) {
    if (!table.fault.empty()) {
      faults_.push_back(table.objectName + ": " + table.fault);
      continue;
    }
    const auto mount = Sfe::Multicast::parseCounterMountPath(table.header.path);
    if (!mount || !passes(filter, *mount)) {
      continue;
    }
    any = true;
    try {
      if (table.header.shape.kind == RecordKind::kIntf) {
        readTable<IntfCounter>(systemName, table.header.path, *mount);
      } else {
        readTable<MrouteCounter>(systemName, table.header.path, *mount);
      }
    } catch (const std::exception& error) {
      faults_.push_back(table.header.path + ": " + error.what());
    }
  }
  return any;
}

}  // namespace Sfectl
