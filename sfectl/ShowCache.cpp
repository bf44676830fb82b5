// What waits for a route: held keys, and the limits of what may be held.
#include <memory>
#include <ostream>

#include "sfectl/Instances.h"
#include "sfectl/Settings.h"
#include "sfectl/Show.h"
#include "sfectl/StateText.h"

namespace Sfectl {
namespace {

void addKeys(Client& client, const Instance& instance, Report& keys) {
  const auto text = StateText::fetch(client, instance.module, "cache");
  const size_t source = text.column("source");
  const size_t group = text.column("group");
  const size_t iif = text.column("iif");
  const size_t packets = text.column("packets");
  const size_t age = text.column("oldest_age_ms");
  const size_t state = text.column("state");
  for (size_t i = 0; i < text.size(); ++i) {
    const auto row = text.row(i);
    keys.add({instance.vrf, familyText(instance.af), row[source], row[group], row[iif],
              text.number(row, packets), text.number(row, age), row[state]});
  }
}

void showCache(Session& session, const CounterFilter& filter) {
  Report limits({{"VRF", "vrf"},
                 {"FAMILY", "family"},
                 {"MAX-KEYS", "max_keys"},
                 {"MAX-PACKETS-PER-KEY", "max_packets"},
                 {"EXPIRY-S", "expiry_seconds"},
                 {"REPORT-SUPPRESSION-S", "suppression_seconds"}});
  Report keys({{"VRF", "vrf"},
               {"FAMILY", "family"},
               {"SOURCE", "src"},
               {"GROUP", "dst"},
               {"IIF", "iif"},
               {"PACKETS", "packets"},
               {"AGE-MS", "age_ms"},
               {"STATE", "state"}});
  Client& client = session.client();
  for (const Instance& instance : multicastInstances(client, filter)) {
    const Settings settings = Settings::fetch(client, instance.module);
    limits.add({instance.vrf, familyText(instance.af), settings.number("max_unresolved_entries"),
                settings.number("max_unresolved_packets"), settings.number("cache_expiry_timer"),
                settings.number("no_cache_suppression_timer")});
    addKeys(client, instance, keys);
  }
  if (session.json) {
    session.print(Json{{"limits", limits.toJson()}, {"keys", keys.toJson()}});
    return;
  }
  session.print(limits);
  session.out() << (limits.empty() || keys.empty() ? "" : "\n");
  session.print(keys);
}

}  // namespace

void addShowCache(CLI::App& show, Session& session) {
  auto* command = show.add_subcommand("cache", "Packets that wait for a route, and the limits");
  auto filter = addInstanceFilter(command);
  session.bind(command, [filter](Session& s) { showCache(s, *filter); });
}

}  // namespace Sfectl
