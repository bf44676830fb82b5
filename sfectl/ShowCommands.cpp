#include <memory>
#include <ostream>

#include "sfectl/Arguments.h"
#include "sfectl/Commands.h"
#include "sfectl/Errors.h"
#include "sfectl/Results.h"
#include "sfectl/RouteTable.h"
#include "sfectl/RouteText.h"
#include "sfectl/Show.h"

namespace Sfectl {
namespace {

using Nynet::AddressFamily;
using Nynet::IpGenAddr;
using Stub = Client::Stub;

struct MrouteWords {
  std::string first;
  std::string second;
  bool stats = false;
};

IpGenAddr genericAddress(const Address& address) {
  return {address.isIpv4() ? AddressFamily::kIpv4 : AddressFamily::kIpv6,
          reinterpret_cast<const uint8_t*>(address.bytes.data())};
}

void setGroup(RouteFilter& filter, const std::string& word) {
  const Address group = parseAddress(word, "GROUP");
  if (!group.isMulticast()) {
    throw UsageError("GROUP " + word + " is not a multicast address");
  }
  filter.group = genericAddress(group);
}

void setSource(RouteFilter& filter, const std::string& word) {
  if (word == "*") {
    filter.anySource = true;
    return;
  }
  const Address source = parseAddress(word, "SOURCE");
  if (source.isMulticast()) {
    throw UsageError("SOURCE " + word + " is a multicast address");
  }
  filter.source = genericAddress(source);
}

// One word alone may be either: no group is a source.
RouteFilter routeFilter(const MrouteWords& words) {
  RouteFilter filter;
  if (!words.second.empty()) {
    setSource(filter, words.first);
    setGroup(filter, words.second);
    if (filter.source && filter.source->af() != filter.group->af()) {
      throw UsageError("SOURCE " + words.first + " and GROUP " + words.second +
                       " are of different families");
    }
  } else if (!words.first.empty()) {
    const bool isGroup = words.first != "*" && parseAddress(words.first, "ADDRESS").isMulticast();
    isGroup ? setGroup(filter, words.first) : setSource(filter, words.first);
  }
  return filter;
}

bool concerns(const RouteFilter& filter, AddressFamily af) {
  return (!filter.source || filter.source->af() == af) &&
         (!filter.group || filter.group->af() == af);
}

// Writes a whole instance's routes at once: there may be a hundred thousand.
void printRoutes(Session& session, const RouteTable& table, bool stats, bool& first) {
  const RouteStyle style{.stats = stats, .table = table.instance().vrf != kDefaultVrf};
  std::string text;
  for (const Route& route : table.routes()) {
    if (session.json) {
      text += first ? "" : ",";
      appendRouteJson(text, table.instance(), route);
    } else {
      appendRouteText(text, table.instance(), route, style);
    }
    first = false;
  }
  session.out() << text;
}

void showMroute(Session& session, const MrouteWords& words, const CounterFilter& filter) {
  const RouteFilter wanted = routeFilter(words);
  Client& client = session.client();
  const bool counts = words.stats || session.json;
  std::vector<RouteTable> tables;
  for (const Instance& instance : multicastInstances(client, filter)) {
    if (concerns(wanted, instance.af)) {
      tables.push_back(RouteTable::load(client, instance, counts, wanted));
    }
  }
  bool first = true;
  session.out() << (session.json ? "[" : "");
  for (const RouteTable& table : tables) {
    printRoutes(session, table, words.stats, first);
    if (!table.fault().empty()) {
      session.err() << "sfectl: " << table.fault() << std::endl;
    }
  }
  session.out() << (session.json ? "]\n" : "");
}

void addShowMroute(CLI::App& show, Session& session) {
  auto words = std::make_shared<MrouteWords>();
  auto* command = show.add_subcommand("mroute", "Routes, as `ip mroute show` prints them");
  command->add_option("SOURCE", words->first, "Only this source; '*' is any; or only this group");
  command->add_option("GROUP", words->second, "Only this group");
  command->add_flag("-s,--stats", words->stats, "Also their counters");
  auto filter = addInstanceFilter(command);
  session.bind(command, [words, filter](Session& s) { showMroute(s, *words, *filter); });
}

void addShowLists(CLI::App& show, Session& session) {
  session.bind(show.add_subcommand("modules", "Modules of the packet graph"), [](Session& s) {
    s.print(moduleReport(s.client().call(&Stub::ListModules).modules()));
  });
  session.bind(show.add_subcommand("tasks", "Tasks, their workers and rates"),
               [](Session& s) { s.print(taskReport(s.client().call(&Stub::ListTasks).tasks())); });
  session.bind(show.add_subcommand("ports", "Ports and their counters"), [](Session& s) {
    const auto answer = s.client().call(&Stub::ListPorts);
    const Report ports = portReport(answer.ports());
    const Report counters = portCounterReport(answer.ports());
    if (!s.json) {
      s.print(ports);
      s.out() << (ports.empty() ? "" : "\n");
      s.print(counters);
      return;
    }
    Json result = ports.toJson();
    const Json counts = counters.toJson();
    for (size_t i = 0; i < result.size(); ++i) {
      result[i].update(counts[i]);
    }
    s.print(result);
  });
}

}  // namespace

CLI::App& showGroup(CLI::App& app) {
  const auto made = app.get_subcommands([](const CLI::App* a) { return a->get_name() == "show"; });
  if (!made.empty()) {
    return *made.front();
  }
  auto* show = app.add_subcommand("show", "What is going on: routes, interfaces, cache, drops");
  show->require_subcommand(1);
  return *show;
}

std::shared_ptr<CounterFilter> addInstanceFilter(CLI::App* command) {
  auto filter = std::make_shared<CounterFilter>();
  command->add_option_function<std::string>(
      "--vrf", [filter](const std::string& vrf) { filter->vrf = vrf; }, "Only this VRF");
  auto* ipv4 = command->add_flag_callback(
      "-4", [filter] { filter->af = AddressFamily::kIpv4; }, "Only IPv4");
  command
      ->add_flag_callback(
          "-6", [filter] { filter->af = AddressFamily::kIpv6; }, "Only IPv6")
      ->excludes(ipv4);
  return filter;
}

void addShowCommands(CLI::App& app, Session& session) {
  CLI::App& show = showGroup(app);
  addShowMroute(show, session);
  addShowIntf(show, session);
  addShowCache(show, session);
  addShowSummary(show, session);
  addShowTrace(show, session);
  addShowLists(show, session);
}

}  // namespace Sfectl
