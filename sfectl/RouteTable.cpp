#include "sfectl/RouteTable.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <tuple>
#include <utility>

#include "Sfe/Multicast/CounterTableReader.h"
#include "Sfe/Multicast/MountPath.h"
#include "Sfe/OrpSharedMem/EntityManager.h"
#include "sfectl/Errors.h"
#include "sfectl/Report.h"

namespace Sfectl {
namespace {

using Nynet::AddressFamily;
using Nynet::IpGenAddr;
using Sfe::Multicast::MrouteCounter;

IpGenAddr addressOf(std::string_view text, AddressFamily af) {
  std::array<char, INET6_ADDRSTRLEN> word{};
  std::array<uint8_t, sizeof(in6_addr)> bytes{};
  if (text.size() < word.size()) {
    std::memcpy(word.data(), text.data(), text.size());
  }
  if (inet_pton(af == AddressFamily::kIpv4 ? AF_INET : AF_INET6, word.data(), bytes.data()) != 1) {
    throw RuntimeError("the daemon names '" + printable(text) + "', which is no " + familyText(af) +
                       " address");
  }
  return {af, bytes.data()};
}

auto orderOf(const Route& route) {
  return std::tie(route.groupAddress, route.sourceAddress);
}

bool before(const Route& a, const Route& b) {
  return orderOf(a) < orderOf(b);
}

// Group and source of a record, in the order of the routes.
std::pair<const IpGenAddr&, const IpGenAddr&> keyOf(const MrouteCounter& record) {
  return {record.key().group().address(), record.key().source().address()};
}

RouteCount countOf(const MrouteCounter& record) {
  return {record.pktsIn(), record.bytesIn(), record.wrongVif(), record.pktsQueued(),
          record.pktsDropped()};
}

std::optional<std::vector<MrouteCounter>> readCounters(const Instance& instance,
                                                       std::string& fault) {
  const std::string system = OrpSharedMem::systemNameFromEnv();
  try {
    const auto path = Sfe::Multicast::counterMountPath(instance.af, L3::VrfName(instance.vrf),
                                                       Sfe::Multicast::MrouteCounter::kCollection);
    return Sfe::Multicast::MrouteCounterReader(system, path).snapshot();
  } catch (const std::exception& error) {
    fault = "no counters of system " + printable(system) +
            " (SYSNAME) in shared memory: " + printable(error.what());
    return std::nullopt;
  }
}

}  // namespace

RouteCount& RouteCount::operator+=(const RouteCount& other) {
  packets += other.packets;
  bytes += other.bytes;
  wrongIf += other.wrongIf;
  queued += other.queued;
  dropped += other.dropped;
  return *this;
}

bool Route::isAnySource() const {
  return sourceAddress == IpGenAddr(sourceAddress.af(), std::array<uint8_t, 16>{}.data());
}

bool RouteFilter::passes(const Route& route) const {
  return (!source || *source == route.sourceAddress) && (!group || *group == route.groupAddress) &&
         (!anySource || route.isAnySource());
}

RouteTable::RouteTable(Instance instance,
                       Texts texts,
                       std::optional<std::vector<MrouteCounter>> counters,
                       const RouteFilter& filter)
    : instance_(std::move(instance)), texts_(std::move(texts)) {
  // Counts of a (*,G) route need the group's other routes too: what is not wanted goes last.
  addRoutes(filter);
  addWaiting(filter);
  if (counters) {
    addCounts(std::move(*counters));
  }
  std::erase_if(routes_, [&](const Route& route) { return !filter.passes(route); });
}

RouteTable RouteTable::load(Client& client,
                            const Instance& instance,
                            bool withCounters,
                            const RouteFilter& filter) {
  Texts texts{StateText::fetch(client, instance.module, "routes"),
              StateText::fetch(client, instance.module, "cache")};
  std::string fault;
  std::optional<std::vector<MrouteCounter>> counters;
  if (withCounters) {
    counters = readCounters(instance, fault);
  }
  RouteTable table(instance, std::move(texts), std::move(counters), filter);
  table.fault_ = std::move(fault);
  return table;
}

void RouteTable::addRoutes(const RouteFilter& filter) {
  const StateText& text = texts_.routes;
  const size_t source = text.column("source");
  const size_t group = text.column("group");
  const size_t iif = text.column("iif");
  const size_t iifFrr = text.column("iif_frr");
  const size_t notify = text.column("notify");
  const size_t fastdrop = text.column("fastdrop");
  const size_t flags = text.column("flags");
  const size_t oifs = text.column("oifs");
  routes_.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const auto row = text.row(i);
    Route route;
    route.groupAddress = addressOf(row[group], instance_.af);
    if (filter.group && *filter.group != route.groupAddress) {
      continue;
    }
    route.sourceAddress = addressOf(row[source], instance_.af);
    route.source = row[source];
    route.group = row[group];
    route.iif = row[iif];
    route.iifFrr = row[iifFrr];
    route.notify = row[notify];
    route.fastdrop = row[fastdrop];
    route.flags = row[flags];
    route.oifs = row[oifs];
    routes_.push_back(route);
  }
  std::sort(routes_.begin(), routes_.end(), before);
}

void RouteTable::addWaiting(const RouteFilter& filter) {
  const StateText& text = texts_.cache;
  const size_t source = text.column("source");
  const size_t group = text.column("group");
  const size_t packets = text.column("packets");
  const size_t age = text.column("oldest_age_ms");
  const size_t state = text.column("state");
  const size_t known = routes_.size();
  for (size_t i = 0; i < text.size(); ++i) {
    const auto row = text.row(i);
    Route route;
    route.resolved = false;
    route.sourceAddress = addressOf(row[source], instance_.af);
    route.groupAddress = addressOf(row[group], instance_.af);
    route.source = row[source];
    route.group = row[group];
    route.heldPackets = text.number(row, packets);
    route.heldMs = text.number(row, age);
    // The route of a key that is resolved may have come after the routes were read, or before.
    const auto end = routes_.begin() + static_cast<ptrdiff_t>(known);
    if (row[state] == "waiting" && filter.passes(route) &&
        !std::binary_search(routes_.begin(), end, route, before)) {
      routes_.push_back(route);
    }
  }
  std::sort(routes_.begin(), routes_.end(), before);
}

void RouteTable::addCounts(std::vector<MrouteCounter> counters) {
  std::sort(counters.begin(), counters.end(),
            [](const MrouteCounter& a, const MrouteCounter& b) { return keyOf(a) < keyOf(b); });
  for (Route& route : routes_) {
    if (route.resolved) {
      route.count.emplace();
    }
  }
  Route* anySource = nullptr;  // the (*,G) route of the group that is looked at
  auto route = routes_.begin();
  for (const MrouteCounter& record : counters) {
    const auto key = keyOf(record);
    for (; route != routes_.end() &&
           std::tie(route->groupAddress, route->sourceAddress) < std::tie(key.first, key.second);
         ++route) {
      if (route->resolved && route->isAnySource()) {
        anySource = &*route;
      }
    }
    if (route != routes_.end() && route->groupAddress == key.first &&
        route->sourceAddress == key.second) {
      if (route->resolved) {
        *route->count += countOf(record);
      }
    } else if (anySource != nullptr && anySource->groupAddress == key.first) {
      *anySource->count += countOf(record);
    }
  }
}

}  // namespace Sfectl
