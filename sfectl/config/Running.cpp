#include "sfectl/config/Running.h"

#include <functional>
#include <sstream>

#include "sfectl/Arguments.h"
#include "sfectl/Client.h"
#include "sfectl/Errors.h"
#include "sfectl/Report.h"
#include "sfectl/StateText.h"

namespace Sfectl {
namespace {

using Stub = Client::Stub;

uint32_t numberOf(const std::string& text, const std::string& what) {
  return parseNumber(text, what, ~uint32_t{0});
}

std::vector<std::string> wordsOf(const std::string& text, char separator) {
  std::vector<std::string> words;
  std::istringstream stream(text);
  for (std::string word; std::getline(stream, word, separator);) {
    if (!word.empty()) {
      words.push_back(word);
    }
  }
  return words;
}

uint64_t intfOf(const std::string& name) {
  return name.empty() ? 0 : parseIntf(name, "interface");
}

// The fields of a row of a state by the names of their columns.
using Fields = std::function<std::string(const char* column)>;

void eachRow(Client& client,
             const std::string& module,
             const std::string& state,
             const std::function<void(const Fields&)>& use) {
  const StateText text = StateText::fetch(client, module, state);
  for (size_t i = 0; i < text.size(); ++i) {
    use([&](const char* column) { return std::string(text.row(i)[text.column(column)]); });
  }
}

void readSettings(Client& client, const std::string& module, RunningInstance& out) {
  std::map<std::string, std::string> values;
  eachRow(client, module, "settings",
          [&](const Fields& fields) { values[fields("name")] = fields("value"); });
  const auto number = [&](const char* name) { return numberOf(values[name], name); };
  const auto optional = [&](const char* name) {
    return values[name].empty() ? std::nullopt : std::optional<uint32_t>(number(name));
  };
  const std::string mac = parseMac(values["bridge_mac"]);
  if (mac != std::string(mac.size(), '\0')) {
    out.settings.bridgeMac = mac;
  }
  out.settings.cacheExpiry = number("cache_expiry_timer");
  out.settings.cacheEntries = number("max_unresolved_entries");
  out.settings.cachePackets = number("max_unresolved_packets");
  out.settings.suppressionTimer = number("no_cache_suppression_timer");
  out.resolveTask = optional("mfib_task");
  out.cleanupTask = optional("cleanup_task");
  for (const CounterName& counter : kCounterNames) {
    out.counterIds.push_back(optional(counter.setting).value_or(0));
  }
}

RouteConfig routeOf(const Fields& row) {
  RouteConfig route;
  route.key.source = parseAddress(row("source"), "source").bytes;
  route.key.group = parseAddress(row("group"), "group").bytes;
  route.iif = intfOf(row("iif"));
  route.iifFrr = intfOf(row("iif_frr"));
  route.notify = intfOf(row("notify"));
  route.fastdrop = intfOf(row("fastdrop"));
  for (const std::string& flag : wordsOf(row("flags"), ',')) {
    route.toCpu |= flag == "to_cpu";
    route.iifRegister |= flag == "iif_register";
    route.oifRegister |= flag == "oif_register";
  }
  for (const std::string& word : wordsOf(row("oifs"), ',')) {
    const Endpoint oif = parseEndpoint(word, kRouteGate);
    route.oifs.emplace(parseIntf(oif.name, "oif"), oif.gate);
  }
  return route;
}

RunningInstance readInstance(Client& client, const std::string& module) {
  RunningInstance instance;
  readSettings(client, module, instance);
  eachRow(client, module, "interfaces", [&](const Fields& fields) {
    instance.interfaces.insert(parseIntf(fields("intf"), "interface"));
  });
  eachRow(client, module, "routes", [&](const Fields& fields) {
    RouteConfig route = routeOf(fields);
    instance.routes.emplace(route.key, route);
  });
  return instance;
}

std::map<std::string, RunningIntf> readEdge(Client& client, const std::string& module) {
  const auto answer = client.command(module, "showIntfs", sfe::pb::EmptyIntfArg());
  sfe::pb::IntfTable table;
  if (!answer.data().UnpackTo(&table)) {
    throw RuntimeError(printable(module) + ": the answer is not a table of interfaces");
  }
  std::map<std::string, RunningIntf> result;
  for (const auto& intf : table.intfs()) {
    result[intf.name()] = {intf.port(), intf.vlan(), intf.mac(), intf.gate_base()};
  }
  return result;
}

void readGraph(Client& client, Running& out) {
  const auto classes = client.call(&Stub::ListModuleClasses);
  out.classes.insert(classes.names().begin(), classes.names().end());
  const auto workers = client.call(&Stub::ListWorkers);
  for (const auto& worker : workers.workers()) {
    out.workers[worker.wid()] = worker.core();
  }
  const auto ports = client.call(&Stub::ListPorts);
  for (const auto& port : ports.ports()) {
    out.ports[port.name()] = {port.id(),          port.devargs(),      port.mac(),
                              port.mtu(),         port.rxq(),          port.txq(),
                              port.promiscuous(), port.allmulticast(), port.queue_size()};
  }
  const auto settings = client.call(&Stub::GetSettings).settings();
  if (settings.has_publish_period_ms()) {
    out.publishPeriod = settings.publish_period_ms();
  }
  const auto modules = client.call(&Stub::ListModules);
  for (const auto& module : modules.modules()) {
    out.modules[module.name()] = {module.class_name(), module.arg()};
  }
  const auto connections = client.call(&Stub::ListConnections);
  for (const auto& connection : connections.connections()) {
    out.connections[{connection.m1(), connection.ogate()}] = {connection.m2(), connection.igate()};
  }
  const auto tasks = client.call(&Stub::ListTasks);
  for (const auto& task : tasks.tasks()) {
    out.tasks[{task.module(), task.task_id()}] = {task.wid(), task.rate()};
  }
  const auto counters = client.call(&Stub::GetCounters);
  for (const auto& counter : counters.counters()) {
    out.counters[counter.name()] = counter.id();
  }
}

}  // namespace

const std::vector<CounterName> kCounterNames = {
    {"nonMcastIIFMessagesCounter_", "non_mcast_iif_counter",
     &sfe::pb::MfibCounterIdArg::set_non_mcast_iif},
    {"wrongVifMessagesCounter_", "wrong_vif_counter", &sfe::pb::MfibCounterIdArg::set_wrong_vif},
    {"wholePktMessagesCounter_", "whole_pkt_counter", &sfe::pb::MfibCounterIdArg::set_whole_pkt},
    {"noCacheMessagesCounter_", "no_cache_counter", &sfe::pb::MfibCounterIdArg::set_no_cache},
    {"noCacheMessagesResolvedCounter_", "no_cache_resolved_counter",
     &sfe::pb::MfibCounterIdArg::set_no_cache_resolved},
    {"noCacheMessagesExpiredCounter_", "no_cache_expired_counter",
     &sfe::pb::MfibCounterIdArg::set_no_cache_expired}};

Running readRunning(Client& client) {
  Running running;
  readGraph(client, running);
  for (const auto& [name, module] : running.modules) {
    if (module.className == "Mfib") {
      running.instances[name] = readInstance(client, name);
    } else if (module.className == "IntfIn" || module.className == "IntfOut") {
      running.edges[name] = readEdge(client, name);
    }
  }
  return running;
}

std::map<std::string, bool> readToggles(Client& client) {
  std::map<std::string, bool> toggles;
  eachRow(client, "", "toggles", [&](const Fields& fields) {
    toggles[fields("name")] = fields("value") == "1" || fields("value") == "true";
  });
  return toggles;
}

}  // namespace Sfectl
