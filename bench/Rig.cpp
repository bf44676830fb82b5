#include "bench/Rig.h"

#include <glog/logging.h>
#include <sched.h>
#include <unistd.h>
#include <urcu-qsbr.h>

#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <thread>

#include "Bess/Cores.h"
#include "Bess/Eal.h"
#include "Bess/PacketPool.h"
#include "Bess/Worker.h"
#include "Nynet/IntfId.h"
#include "Sfe/Counters/Counters.h"
#include "protocol/modules.pb.h"
#include "protocol/sfe.pb.h"

namespace bench {

namespace {

constexpr unsigned kPoolPackets = bess::PacketPool::kDefaultCount;
constexpr unsigned kMemoryMb = 2048;
constexpr double kPatience = 120;
constexpr uint32_t kRoutesBetweenQuiescentStates = 1024;
constexpr double kNsPerSecond = 1e9;

void ok(const CommandResponse& response) {
  if (response.has_error() && response.error().code() != 0) {
    throw std::runtime_error(response.error().errmsg());
  }
}

// Notifications stay in a network namespace of the program's own.
void isolate() {
  setenv("SYSNAME", ("bench" + std::to_string(getpid())).c_str(), 1);
  if (geteuid() == 0 && unshare(CLONE_NEWNET) != 0) {
    throw std::runtime_error("cannot make a network namespace");
  }
}

sfe::pb::MfibRouteArg routeArg(Mode mode, const Routes& routes) {
  sfe::pb::MfibRouteArg arg;
  const std::string source = sourceBytes(mode);
  arg.set_source(routes.anySource ? std::string(source.size(), '\0') : source);
  arg.set_iif(intfId(routes.iif));
  arg.set_iif_register(routes.iifRegister);
  for (unsigned i = 0; i < routes.fanOut; ++i) {
    sfe::pb::OifArg* oif = arg.add_oifs();
    oif->set_intf_id(intfId(outIntf(routes.firstOif + i)));
    oif->set_gate(kGate);
  }
  return arg;
}

// One command for each route, without the messages around it.
template <class Command>
void forEachRoute(const Graph& graph, const Routes& routes, Command command) {
  sfe::pb::MfibRouteArg arg = routeArg(graph.mode(), routes);
  for (uint32_t i = 0; i < routes.count; ++i) {
    arg.set_group(groupBytes(graph.mode(), routes.first + i));
    ok(command(arg));
    if (i % kRoutesBetweenQuiescentStates == 0) {
      urcu_qsbr_quiescent_state();
    }
  }
}

}  // namespace

uint64_t intfId(const std::string& name) {
  return Nynet::IntfId::fromName(name).value();
}

std::string outIntf(unsigned index) {
  return "Ethernet" + std::to_string(index + 1);
}

google::protobuf::Any packed(const google::protobuf::Message& message) {
  google::protobuf::Any any;
  any.PackFrom(message);
  return any;
}

CommandResponse run(const std::string& module,
                    const std::string& command,
                    const google::protobuf::Message& arg) {
  CommandResponse response = ModuleGraph::runCommand(module, command, packed(arg));
  ok(response);
  return response;
}

void sleepFor(double seconds) {
  urcu_qsbr_thread_offline();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  urcu_qsbr_thread_online();
}

bool await(const std::function<bool()>& condition, double seconds) {
  constexpr double kPause = 20e-6;
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    sleepFor(kPause);
  }
  return true;
}

double workerNs(int wid) {
  clockid_t clock = 0;
  timespec time = {};
  if (!FlowSource::clockOf(wid, &clock) || clock_gettime(clock, &time) != 0) {
    throw std::runtime_error("worker " + std::to_string(wid) + " has no clock");
  }
  return static_cast<double>(time.tv_sec) * kNsPerSecond + static_cast<double>(time.tv_nsec);
}

OnTheWorkersCore::OnTheWorkersCore() : before_{} {
  sched_getaffinity(0, sizeof(before_), &before_);
  cpu_set_t here;
  CPU_ZERO(&here);
  CPU_SET(static_cast<size_t>(bess::usableCores().back()), &here);
  sched_setaffinity(0, sizeof(here), &here);
}

OnTheWorkersCore::~OnTheWorkersCore() {
  sched_setaffinity(0, sizeof(before_), &before_);
}

Rig::Rig(unsigned hugeMb, unsigned workers) {
  isolate();
  FLAGS_minloglevel = google::GLOG_WARNING;
  bess::initEal({.hugePages = hugeMb != 0, .memoryMb = hugeMb != 0 ? hugeMb : kMemoryMb});
  urcu_qsbr_register_thread();
  bess::PacketPool::createDefaultPools(kPoolPackets);
  FlowSource::registerClass();
  const std::vector<int> cores = bess::usableCores();
  for (unsigned wid = 0; wid < workers; ++wid) {
    SfeModules::createCounterRow(static_cast<int>(wid));
    // The last cores first: the first one has most of what else goes on.
    const int core = cores.size() < workers ? -1 : cores[cores.size() - 1 - wid];
    launchWorker(static_cast<int>(wid), WorkerOptions{.core = core, .spin = true});
  }
}

Rig::~Rig() {
  destroyAllWorkers();
  urcu_qsbr_unregister_thread();
}

Graph::Graph(const std::string& prefix) {
  make(prefix);
  ok(ModuleGraph::connect(sourceName_, 0, sinkName_, 0));
}

Graph::Graph(const std::string& prefix, Mode mode) : mfibName_(prefix + "mfib"), mode_(mode) {
  make(prefix);
  sfe::pb::MfibArg arg;
  arg.set_vrfname("default");
  arg.set_af(mode == Mode::kIpv6 ? 2 : 1);
  arg.set_ethernet_mode(mode != Mode::kIpv4Bare);
  const auto created = ModuleGraph::createModule("Mfib", mfibName_, packed(arg));
  if (created.has_error()) {
    throw std::runtime_error(created.error().errmsg());
  }
  mfib_ = dynamic_cast<SfeModules::Mfib*>(ModuleGraph::findModule(mfibName_));
  ok(ModuleGraph::connect(sourceName_, 0, mfibName_, 0));
  ok(ModuleGraph::connect(mfibName_, 0, sinkName_, 0));
  ok(ModuleGraph::connect(mfibName_, kGate, sinkName_, 0));
  sfe::pb::MulticastIntfArg intfs;
  intfs.add_intf_ids(intfId(kInIntf));
  intfs.add_intf_ids(intfId(kOtherInIntf));
  run(mfibName_, "addMulticastIntfs", intfs);
}

void Graph::make(const std::string& prefix) {
  sourceName_ = prefix + "source";
  sinkName_ = prefix + "sink";
  const google::protobuf::Any nothing;
  for (const auto& [kind, name, arg] :
       {std::tuple(FlowSource::kClass, sourceName_, nothing),
        std::tuple("Sink", sinkName_, packed(bess::pb::SinkArg()))}) {
    const auto created = ModuleGraph::createModule(kind, name, arg);
    if (created.has_error()) {
      throw std::runtime_error(created.error().errmsg());
    }
  }
  source_ = dynamic_cast<FlowSource*>(ModuleGraph::findModule(sourceName_));
}

Graph::~Graph() {
  for (const std::string& name : {sourceName_, mfibName_, sinkName_}) {
    if (!name.empty()) {
      ModuleGraph::destroyModule(name);
    }
  }
}

uint64_t Graph::sinkPackets() const {
  bess::pb::ModuleCounters counters;
  run(sinkName_, "showCounters", bess::pb::EmptyModuleArg()).data().UnpackTo(&counters);
  return counters.packets();
}

void Graph::setSize(const char* command, uint32_t value) const {
  sfe::pb::SizeArg arg;
  arg.set_value(value);
  run(mfibName_, command, arg);
}

void Graph::attachModule(const std::string& name, unsigned task, int wid) const {
  ok(ModuleGraph::attachTask(name, task, wid, 0));
}

void Graph::detach(unsigned lane) const {
  ok(ModuleGraph::detachTask(sourceName_, lane));
}

// Every flow has its counter entry once it was sent.
void Graph::warm(unsigned lane) const {
  constexpr double kSettle = 0.002;
  const uint64_t goal = source_->packets(lane) + source_->flows(lane);
  if (!await([&] { return source_->packets(lane) >= goal; }, kPatience)) {
    throw std::runtime_error(sourceName_ + " does not send");
  }
  sleepFor(kSettle);
}

double Graph::nsPerPacket(double seconds, unsigned lanes, double* rate) const {
  double clocks[FlowSource::kLanes] = {};
  uint64_t packets[FlowSource::kLanes] = {};
  for (unsigned lane = 0; lane < lanes; ++lane) {
    clocks[lane] = workerNs(static_cast<int>(lane));
    packets[lane] = source_->packets(lane);
  }
  sleepFor(seconds);
  // Other load may have kept a worker from running all that time.
  const bool ran = await(
      [&] {
        bool all = true;
        for (unsigned lane = 0; lane < lanes; ++lane) {
          all = all && source_->packets(lane) > packets[lane] &&
                workerNs(static_cast<int>(lane)) > clocks[lane];
        }
        return all;
      },
      kPatience);
  if (!ran) {
    throw std::runtime_error(sourceName_ + " stopped");
  }
  double each = 0;
  *rate = 0;
  for (unsigned lane = 0; lane < lanes; ++lane) {
    const double ns = workerNs(static_cast<int>(lane)) - clocks[lane];
    const auto sent = static_cast<double>(source_->packets(lane) - packets[lane]);
    each = ns / sent;
    *rate += sent * kNsPerSecond / ns;
  }
  return each;
}

double Graph::measure(double seconds, uint64_t copies) const {
  const uint64_t sentBefore = source_->packets(0);
  const uint64_t outBefore = sinkPackets();
  attach(0);
  warm(0);
  double rate = 0;
  const double ns = nsPerPacket(seconds, 1, &rate);
  detach(0);
  const uint64_t sent = source_->packets(0) - sentBefore;
  const uint64_t out = sinkPackets() - outBefore;
  if (copies != kUnchecked && out != sent * copies) {
    throw std::runtime_error(std::to_string(sent) + " packets became " + std::to_string(out) +
                             ", expected " + std::to_string(copies) + " of each");
  }
  return ns;
}

double Graph::measureBoth(double seconds) const {
  {
    const ScopedWorkerPause together;
    attach(0);
    attach(1);
  }
  warm(0);
  warm(1);
  double rate = 0;
  nsPerPacket(seconds, FlowSource::kLanes, &rate);
  detach(0);
  detach(1);
  return rate;
}

void addRoutes(const Graph& graph, const Routes& routes) {
  forEachRoute(graph, routes, [&](const auto& arg) { return graph.mfib().addMroute(arg); });
}

void deleteRoutes(const Graph& graph, const Routes& routes) {
  forEachRoute(graph, routes, [&](const auto& arg) { return graph.mfib().deleteMroute(arg); });
}

}  // namespace bench
