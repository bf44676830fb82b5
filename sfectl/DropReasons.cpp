#include "sfectl/DropReasons.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace Sfectl {
namespace {

struct Words {
  std::string_view name;
  std::string_view words;
};

constexpr Words kWords[] = {
    {"cut_off", "a header is not all there"},
    {"pim", "PIM, but no Register with data"},
    {"link_local", "group of the link, never routed"},
    {"non_multicast_intf", "interface not enabled for multicast"},
    {"no_route", "no route, and nothing is held for it"},
    {"cache_full", "no route, and the cache is full"},
    {"expired", "held too long without a route"},
    {"wrong_intf", "arrived on the wrong interface"},
    {"not_register", "Register for a route that takes none"},
    {"ttl", "TTL or hop limit used up"},
    {"no_oifs", "the route has no outgoing interface"},
    {"gate", "gate not allowed for the packet"},
};

constexpr std::string_view kDrops = "mfib_dropped_packets_total";
constexpr std::string_view kReason = "reason=";

size_t placeOf(std::string_view name) {
  return std::find_if(std::begin(kWords), std::end(kWords),
                      [&](const Words& words) { return words.name == name; }) -
         std::begin(kWords);
}

std::string_view unquoted(std::string_view text) {
  const bool quoted = text.size() >= 2 && text.front() == '"' && text.back() == '"';
  return quoted ? text.substr(1, text.size() - 2) : text;
}

// Of `vrf="default",family="ipv4",reason="ttl"`: "ttl". A value may stand without quotes.
std::string_view reasonOf(std::string_view labels) {
  while (!labels.empty()) {
    const size_t comma = labels.find(',');
    const std::string_view label = labels.substr(0, comma);
    if (label.starts_with(kReason)) {
      return unquoted(label.substr(kReason.size()));
    }
    labels.remove_prefix(comma == std::string_view::npos ? labels.size() : comma + 1);
  }
  return {};
}

}  // namespace

std::vector<DropReason> dropReasons(const StateText& metrics) {
  const size_t name = metrics.column("name");
  const size_t labels = metrics.column("labels");
  const size_t value = metrics.column("value");
  std::vector<DropReason> result;
  for (size_t i = 0; i < metrics.size(); ++i) {
    const auto row = metrics.row(i);
    if (row[name] != kDrops) {
      continue;
    }
    const std::string reason(reasonOf(row[labels]));
    const size_t place = placeOf(reason);
    result.push_back({reason, place < std::size(kWords) ? std::string(kWords[place].words) : reason,
                      metrics.number(row, value)});
  }
  std::stable_sort(result.begin(), result.end(), [](const DropReason& a, const DropReason& b) {
    return placeOf(a.name) < placeOf(b.name);
  });
  return result;
}

}  // namespace Sfectl
