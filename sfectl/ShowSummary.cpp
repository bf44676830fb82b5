// The state of every VRF and family on one screen, and where packets went that did not go out.
#include <memory>
#include <ostream>

#include "sfectl/DropReasons.h"
#include "sfectl/Interfaces.h"
#include "sfectl/RouteTable.h"
#include "sfectl/Settings.h"
#include "sfectl/Show.h"

namespace Sfectl {
namespace {

void addInstance(Client& client, const Instance& instance, Report& report) {
  const auto routes = StateText::fetch(client, instance.module, "routes");
  const size_t source = routes.column("source");
  const char* const any = instance.af == Nynet::AddressFamily::kIpv4 ? "0.0.0.0" : "::";
  uint64_t anySource = 0;
  for (size_t i = 0; i < routes.size(); ++i) {
    anySource += routes.row(i)[source] == any ? 1 : 0;
  }
  const auto interfaces = StateText::fetch(client, instance.module, "interfaces");
  const auto cache = StateText::fetch(client, instance.module, "cache");
  const size_t packets = cache.column("packets");
  uint64_t held = 0;
  for (size_t i = 0; i < cache.size(); ++i) {
    held += cache.number(cache.row(i), packets);
  }
  const uint64_t maxKeys =
      Settings::fetch(client, instance.module).number("max_unresolved_entries");
  report.add({instance.vrf, familyText(instance.af), routes.size() - anySource, anySource,
              interfaces.size(), cache.size(), maxKeys, held});
}

void addReasons(Client& client,
                const std::vector<Instance>& instances,
                bool zeroes,
                Report& report) {
  for (const Instance& instance : instances) {
    const auto metrics = StateText::fetch(client, instance.module, "metrics");
    for (const DropReason& reason : dropReasons(metrics)) {
      if (zeroes || reason.packets > 0) {
        report.add({instance.module, reason.words, reason.packets});
      }
    }
  }
  for (const EdgeDrop& drop : edgeDrops(client)) {
    if (zeroes || drop.packets > 0) {
      report.add({drop.module, drop.reason, drop.packets});
    }
  }
}

void showSummary(Session& session, const CounterFilter& filter) {
  Report tables({{"VRF", "vrf"},
                 {"FAMILY", "family"},
                 {"(S,G)", "sg_routes"},
                 {"(*,G)", "starg_routes"},
                 {"INTERFACES", "interfaces"},
                 {"HELD-KEYS", "held_keys"},
                 {"MAX-KEYS", "max_keys"},
                 {"HELD-PACKETS", "held_packets"}});
  Report drops({{"MODULE", "module"}, {"DROPPED-BECAUSE", "reason"}, {"PACKETS", "packets"}});
  Client& client = session.client();
  const auto instances = multicastInstances(client, filter);
  for (const Instance& instance : instances) {
    addInstance(client, instance, tables);
  }
  addReasons(client, instances, session.json, drops);
  if (session.json) {
    session.print(Json{{"tables", tables.toJson()}, {"drops", drops.toJson()}});
    return;
  }
  session.print(tables);
  session.out() << (tables.empty() ? "" : "\n");
  if (drops.empty()) {
    session.out() << "nothing was dropped\n";
  } else {
    session.print(drops);
  }
}

}  // namespace

void addShowSummary(CLI::App& show, Session& session) {
  auto* command = show.add_subcommand("summary", "Routes, interfaces, cache and drops by reason");
  auto filter = addInstanceFilter(command);
  session.bind(command, [filter](Session& s) { showSummary(s, *filter); });
}

}  // namespace Sfectl
