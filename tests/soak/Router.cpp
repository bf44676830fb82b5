#include "tests/soak/Router.h"

#include <arpa/inet.h>

#include <map>
#include <stdexcept>

#include "Bess/ModuleGraph.h"
#include "Bess/PortRegistry.h"
#include "Bess/Worker.h"
#include "SfeModules/Testing/MfibFixture.h"
#include "protocol/modules.pb.h"
#include "protocol/sfe.pb.h"
#include "tests/soak/Isolation.h"

namespace soak {

namespace {

using SfeModules::Fate;

constexpr uint32_t kExpirySeconds = 1;
constexpr unsigned kCleanupRunsPerSecond = 100;
constexpr std::chrono::seconds kPatience{60};
const std::map<unsigned, std::string> kTargets = {{0, "passed"},
                                                  {1, "port1"},
                                                  {2, "port2"},
                                                  {3, "sink"}};

google::protobuf::Any packed(const google::protobuf::Message& message) {
  google::protobuf::Any any;
  any.PackFrom(message);
  return any;
}

template <class Response>
Response ok(Response response) {
  if (response.has_error() && response.error().code() != 0) {
    throw std::runtime_error(response.error().errmsg());
  }
  return response;
}

std::string addressBytes(const std::string& text, uint32_t af) {
  std::string bytes(af == 1 ? 4 : 16, '\0');
  if (text != "*" && inet_pton(af == 1 ? AF_INET : AF_INET6, text.c_str(), bytes.data()) != 1) {
    throw std::invalid_argument("no address: " + text);
  }
  return bytes;
}

uint64_t id(const std::string& intf) {
  return Nynet::IntfId::fromName(intf).value();
}

}  // namespace

Router::Router(const RouterSettings& settings)
    : settings_(settings),
      flows_(makeFlows({settings.af, settings.ethernetMode})),
      volatileFlows_(flowsOf(Kind::kVolatile, Kind::kVolatileRegister)),
      replacedFlows_(flowsOf(Kind::kReplaced, Kind::kReplaced)),
      flowCounts_(flows_.size()) {
  if (bess::PacketPool::defaultPool() == nullptr) {
    bess::PacketPool::createDefaultPools();
  }
  fates_.nameIs(settings.af == 1 ? "mfib4.default" : "mfib6.default");
  Generator::registerClass();
  FlowHook::countsIs(&flowCounts_);
  for (int wid = 0; wid < settings.workers; ++wid) {
    SfeModules::createCounterRow(wid);
    launchWorker(wid);
  }
  for (const std::string name : {"1", "2"}) {
    bess::PortConfig config;
    config.name = "null" + name;
    config.devargs = "net_null" + name;
    config.txQueues = static_cast<uint16_t>(settings.workers);
    bess::PortRegistry::global().create(config);
    bess::pb::PortOutArg port;
    port.set_port(config.name);
    ok(ModuleGraph::createModule("PortOut", "port" + name, packed(port)));
  }
  ok(ModuleGraph::createModule("Sink", "sink", packed(bess::pb::SinkArg())));
  ok(ModuleGraph::createModule("Sink", "passed", packed(bess::pb::SinkArg())));
  ok(ModuleGraph::createModule(Generator::kClass, "generator", {}));
  generator_ = dynamic_cast<Generator*>(ModuleGraph::findModule("generator"));
  generator_->prepare(flows_, static_cast<unsigned>(settings.workers));
  for (int wid = 0; wid < settings.workers; ++wid) {
    attach("generator", static_cast<unsigned>(wid), wid, settings.burstsPerSecond);
  }
}

Router::~Router() {
  ModuleGraph::destroyAllModules();
  destroyAllWorkers();
  bess::PortRegistry::global().closeAll();
  for (int wid = 0; wid < settings_.workers; ++wid) {
    SfeModules::destroyCounterRow(wid);
  }
}

void Router::createMfib() {
  sfe::pb::MfibArg arg;
  arg.set_vrfname("default");
  arg.set_af(settings_.af);
  arg.set_ethernet_mode(settings_.ethernetMode);
  arg.set_vrfid(1);
  ok(ModuleGraph::createModule("Mfib", "mfib", packed(arg)));
  mfib_ = dynamic_cast<SfeModules::Mfib*>(ModuleGraph::findModule("mfib"));
  for (const auto& [gate, target] : kTargets) {
    ok(ModuleGraph::connect("mfib", gate, target, 0));
    track("mfib", gate, target);
    if (gate != 0) {
      ok(ModuleGraph::addHook(FlowHook::kName, {"mfib", true, gate}, ""));
    }
  }
  programIntfs("addMulticastIntfs", kStableIntfs);
  programIntfs("addMulticastIntfs", {kFlappingIntf});
  flappingOn_ = true;
  programmed_.assign(flows_.size(), false);
  for (const Flow& flow : flows_) {
    if (!flow.routes.empty() && flow.kind != Kind::kVolatile &&
        flow.kind != Kind::kVolatileRegister) {
      programRoute("addMroute", flow.routes[0]);
    }
  }
  programSize("setCacheExpiryTimer", kExpirySeconds);
  sfe::pb::MfibTaskIdArg tasks;
  run("regMfibTasks", tasks);
  run("regCleanupTask", tasks);
  attach("mfib", 0, 0, 0);
  attach("mfib", 1, settings_.workers - 1, kCleanupRunsPerSecond);
}

void Router::destroyMfib() {
  mfib_ = nullptr;
  ok(ModuleGraph::destroyModule("mfib"));
}

void Router::connectGenerator() {
  const ScopedWorkerPause pause;  // no packet before the hooks are there
  ok(ModuleGraph::connect("generator", 0, "mfib", 0));
  track("generator", 0, "mfib");
}

void Router::disconnectGenerator() {
  ok(ModuleGraph::disconnect("generator", 0));
}

void Router::detachMfib() {
  ok(ModuleGraph::detachTask("mfib", 0));
  ok(ModuleGraph::detachTask("mfib", 1));
}

SfeModules::MfibKey Router::keyOf(const std::string& source, const std::string& group) const {
  const std::string from = addressBytes(source, settings_.af);
  const std::string to = addressBytes(group, settings_.af);
  return SfeModules::MfibKey::of(reinterpret_cast<const uint8_t*>(from.data()),
                                 reinterpret_cast<const uint8_t*>(to.data()),
                                 static_cast<uint32_t>(from.size()));
}

void Router::changeSomething() {
  constexpr unsigned kPercent = 100;
  constexpr uint32_t kMostBuffers = 8;
  constexpr uint32_t kMostKeys = 250;
  const unsigned dice = static_cast<unsigned>(random_() % kPercent);
  if (dice < 50) {
    const size_t flow = pick(volatileFlows_);
    programRoute(programmed_[flow] ? "deleteMroute" : "addMroute", flows_[flow].routes[0]);
    programmed_[flow] = !programmed_[flow];
  } else if (dice < 80) {
    const Flow& flow = flows_[pick(replacedFlows_)];
    programRoute("addMroute", flow.routes[random_() % flow.routes.size()]);
  } else if (dice < 88) {
    if (settings_.flap) {
      programIntfs(flappingOn_ ? "deleteMulticastIntfs" : "addMulticastIntfs", {kFlappingIntf});
      flappingOn_ = !flappingOn_;
    }
  } else if (dice < 92) {
    programSize("setMaxUnresolvedPktBuffers", static_cast<uint32_t>(random_() % kMostBuffers));
  } else if (dice < 96) {
    programSize("setMaxUnresolvedCacheEntries", static_cast<uint32_t>(random_() % kMostKeys));
  } else {
    sfe::pb::EthernetConfigArg mac;
    mac.set_mac(std::string("\x02\x00\x00\x00\x00", 5) + static_cast<char>(random_()));
    run("setBridgeMacAddr", mac);
  }
}

void Router::stopGenerator() {
  generator_->runningIs(false);
  const ScopedWorkerPause pause;  // what the runs before it sent has been handled
}

bool Router::drain() {
  return await([this] { return SfeModules::MfibTestPeer::cache(*mfib_)->packetCount() == 0; },
               kPatience);
}

void Router::run(const std::string& command, const google::protobuf::Message& arg) {
  ok(ModuleGraph::runCommand("mfib", command, packed(arg)));
}

void Router::programRoute(const char* command, const Route& route) {
  sfe::pb::MfibRouteArg arg;
  arg.set_source(addressBytes(route.source, settings_.af));
  arg.set_group(addressBytes(route.group, settings_.af));
  arg.set_iif(id(route.iif));
  arg.set_iif_register(route.iifRegister);
  arg.set_oif_register(route.oifRegister);
  for (const Oif& oif : route.oifs) {
    sfe::pb::OifArg* added = arg.add_oifs();
    added->set_intf_id(id(oif.intf));
    added->set_gate(oif.gate);
  }
  run(command, arg);
}

void Router::programIntfs(const char* command, const std::vector<std::string>& intfs) {
  sfe::pb::MulticastIntfArg arg;
  for (const std::string& intf : intfs) {
    arg.add_intf_ids(id(intf));
  }
  run(command, arg);
}

void Router::programSize(const char* command, uint32_t value) {
  sfe::pb::SizeArg arg;
  arg.set_value(value);
  run(command, arg);
}

void Router::attach(const std::string& module, unsigned task, int wid, unsigned rate) {
  ok(ModuleGraph::attachTask(module, task, wid, rate));
}

void Router::track(const std::string& from, unsigned gate, const std::string& to) {
  ok(ModuleGraph::addHook("track", {from, true, gate}, ""));
  ok(ModuleGraph::addHook("track", {to, false, 0}, ""));
}

std::vector<size_t> Router::flowsOf(Kind first, Kind second) const {
  std::vector<size_t> found;
  for (size_t i = 0; i < flows_.size(); ++i) {
    if (flows_[i].kind == first || flows_[i].kind == second) {
      found.push_back(i);
    }
  }
  return found;
}

uint64_t Router::fate(Fate fate) const {
  uint64_t sum = 0;
  for (int wid = 0; wid < settings_.workers; ++wid) {
    sum += SfeModules::bessCounter(wid, fates_.id(fate));
  }
  return sum;
}

uint64_t Router::drops() const {
  uint64_t sum = 0;
  for (auto i = static_cast<int>(Fate::kDropCutOff); i < static_cast<int>(Fate::kCount); ++i) {
    sum += fate(static_cast<Fate>(i));
  }
  return sum;
}

uint64_t Router::tracked(const std::string& module, bool output, unsigned gate) const {
  for (const auto& [hook, where] : ModuleGraph::hooks()) {
    if (hook->name() == "track" && where.module == module && where.output == output &&
        where.gate == gate) {
      return hook->stats().packets;
    }
  }
  throw std::runtime_error("no hook on " + module);
}

std::pair<uint64_t, uint64_t> Router::counted(const std::string& module) const {
  bess::pb::ModuleCounters counters;
  ok(ModuleGraph::runCommand(module, "showCounters", packed(bess::pb::EmptyModuleArg())))
      .data()
      .UnpackTo(&counters);
  return {counters.packets(), counters.drops()};
}

}  // namespace soak
