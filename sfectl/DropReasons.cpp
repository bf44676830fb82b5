#include "sfectl/DropReasons.h"

#include <algorithm>
#include <string_view>

namespace Sfectl {
namespace {

struct Words {
  std::string_view name;
  std::string_view words;
};

constexpr Words kWords[] = {
    {"drop_cut_off", "a header is not all there"},
    {"drop_pim", "PIM, but no Register with data"},
    {"drop_link_local", "group of the link, never routed"},
    {"drop_non_multicast_intf", "interface not enabled for multicast"},
    {"drop_no_route", "no route, and nothing is held for it"},
    {"drop_cache_full", "no route, and the cache is full"},
    {"drop_expired", "held too long without a route"},
    {"drop_wrong_intf", "arrived on the wrong interface"},
    {"drop_not_register", "Register for a route that takes none"},
    {"drop_ttl", "TTL or hop limit used up"},
    {"drop_no_oifs", "the route has no outgoing interface"},
    {"drop_gate", "gate not allowed for the packet"},
    {"copy_failed", "no packet buffer for a copy"},
};

constexpr std::string_view kDrop = "drop_";

uint64_t totalOf(const bess::pb::CounterValues& counter) {
  uint64_t total = 0;
  for (const auto& value : counter.values()) {
    total += value.value();
  }
  return total;
}

size_t placeOf(std::string_view name) {
  return std::find_if(std::begin(kWords), std::end(kWords),
                      [&](const Words& words) { return words.name == name; }) -
         std::begin(kWords);
}

}  // namespace

std::vector<DropReason> dropReasons(
    const google::protobuf::RepeatedPtrField<bess::pb::CounterValues>& counters,
    const Instance& instance) {
  const std::string prefix = std::string("mfib") +
                             (instance.af == Nynet::AddressFamily::kIpv4 ? "4." : "6.") +
                             instance.vrf + ".";
  std::vector<DropReason> result;
  for (const auto& counter : counters) {
    if (!counter.name().starts_with(prefix)) {
      continue;
    }
    const std::string name = counter.name().substr(prefix.size());
    const size_t place = placeOf(name);
    if (place < std::size(kWords)) {
      result.push_back({name, std::string(kWords[place].words), totalOf(counter)});
    } else if (name.starts_with(kDrop)) {
      result.push_back({name, name, totalOf(counter)});
    }
  }
  std::stable_sort(result.begin(), result.end(), [](const DropReason& a, const DropReason& b) {
    return placeOf(a.name) < placeOf(b.name);
  });
  return result;
}

}  // namespace Sfectl
