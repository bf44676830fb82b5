#include "bench/Scenarios.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "Bess/PortRegistry.h"
#include "bench/Rig.h"
#include "protocol/modules.pb.h"

namespace bench {

namespace {

constexpr unsigned kBytes = 64;
constexpr double kMostNsWrongIntf = 100;
constexpr double kMostNsUnknown = 250;
constexpr double kLeastShare = 0.9;
constexpr uint32_t kUnknownGroups = 1U << 22U;  // groups from here on have no route

struct Sizes {
  uint32_t routes = 1000;
  uint32_t unknownFlows = 100000;
};

Sizes sizesOf(const Options& options) {
  return options.brief ? Sizes{.routes = 100, .unknownFlows = 2000} : Sizes{};
}

Lane laneOf(const Frame& frame, uint32_t first, uint32_t count, const char* intf = kInIntf) {
  return {.frame = frame, .flows = shuffledFlows(frame, first, count), .inIntf = intfId(intf)};
}

std::string named(Mode mode, const std::string& what) {
  return std::string(modeName(mode)) + " " + what;
}

Row scenarioRow(const std::string& name, const std::string& unit, const Samples& samples) {
  std::fprintf(stderr, "%s: %.1f %s\n", name.c_str(), samples.median(), unit.c_str());
  return {.name = name, .unit = unit, .samples = samples, .words = {{"group", "scenario"}}};
}

Samples repeat(const Graph& graph, uint64_t copies, const Options& options) {
  Samples samples;
  graph.measure(options.seconds, copies);  // warm
  for (unsigned i = 0; i < options.runs; ++i) {
    samples.add(graph.measure(options.seconds, copies));
  }
  return samples;
}

Row wrongInterface(Mode mode, const Options& options) {
  const Sizes sizes = sizesOf(options);
  const Graph graph("", mode);
  addRoutes(graph, {.first = 1, .count = sizes.routes, .fanOut = 4});
  graph.source().prepare(0, laneOf(multicastFrame(mode, kBytes), 1, sizes.routes, kOtherInIntf));
  Row row =
      scenarioRow(named(mode, "wrong-interface flood"), "ns/packet", repeat(graph, 0, options));
  row.mark = atMost("ns", row.samples.median(), kMostNsWrongIntf);
  return row;
}

// The cache is full after the first flows of the flood.
Row unknownFlows(Mode mode, const Options& options) {
  const Sizes sizes = sizesOf(options);
  const Graph graph("", mode);
  addRoutes(graph, {.first = 1, .count = sizes.routes, .fanOut = 4});
  graph.source().prepare(0,
                         laneOf(multicastFrame(mode, kBytes), kUnknownGroups, sizes.unknownFlows));
  Row row = scenarioRow(named(mode, "unknown-flow flood, cache full"), "ns/packet",
                        repeat(graph, 0, options));
  row.mark = atMost("ns", row.samples.median(), kMostNsUnknown);
  return row;
}

// Two sources on one worker take turns. Installed traffic's share is half of what it reaches alone:
// it keeps that when a packet of the flood costs no more than one of its own.
Row besideTheFlood(Mode mode, unsigned fanOut, const Options& options) {
  const Sizes sizes = sizesOf(options);
  const Graph graph("", mode);
  addRoutes(graph, {.first = 1, .count = sizes.routes, .fanOut = fanOut});
  const Frame frame = multicastFrame(mode, kBytes);
  graph.source().prepare(0, laneOf(frame, 1, sizes.routes));
  graph.source().prepare(1, laneOf(frame, kUnknownGroups, sizes.unknownFlows));
  Samples shares;
  graph.measure(options.seconds, fanOut);  // warm
  for (unsigned i = 0; i < options.runs; ++i) {
    const double alone = graph.measure(options.seconds, fanOut);
    graph.attachTo(1, 0);
    const double beside = graph.measure(options.seconds, Graph::kUnchecked);
    graph.detach(1);
    shares.add(2 * alone / beside);
  }
  Row row = scenarioRow(
      named(mode, "installed traffic x " + std::to_string(fanOut) + " beside the flood"),
      "of share", shares);
  row.mark = atLeast("of its share", row.samples.median(), kLeastShare);
  return row;
}

Row anySource(Mode mode, const Options& options) {
  const Sizes sizes = sizesOf(options);
  const Graph graph("", mode);
  addRoutes(graph, {.first = 1, .count = sizes.routes, .fanOut = 1, .anySource = true});
  graph.source().prepare(0, laneOf(multicastFrame(mode, kBytes), 1, sizes.routes));
  return scenarioRow(named(mode, "(*,G) fall-back x 1"), "ns/packet", repeat(graph, 1, options));
}

Row registerMessages(Mode mode, const Options& options) {
  const Sizes sizes = sizesOf(options);
  const Graph graph("", mode);
  addRoutes(graph, {.first = 1, .count = sizes.routes, .fanOut = 1, .iifRegister = true});
  graph.source().prepare(0, laneOf(registerFrame(mode, kBytes), 1, sizes.routes));
  return scenarioRow(named(mode, "Register decapsulation x 1"), "ns/packet",
                     repeat(graph, 1, options));
}

// Held packets on their way out: from the routes' arrival until the last one is in the sink.
class Reinjection {
 public:
  Reinjection(Mode mode, uint32_t keys)
      : graph_("", mode), keys_(keys), frame_(multicastFrame(mode, kBytes)) {
    graph_.setSize("setMaxUnresolvedCacheEntries", keys);
    graph_.setSize("setMaxUnresolvedPktBuffers", kHeldPerKey);
    // The task of "regMfibTasks", without its state files.
    task_ = graph_.mfib().RegisterTask(&tag_);
  }

  double nsPerPacket() {
    hold();
    const uint64_t goal = graph_.sinkPackets() + held();
    addRoutes(graph_, {.first = 1, .count = keys_, .fanOut = 1});
    const double start = workerNs(0);
    graph_.attachModule(graph_.mfibName(), task_, 0);
    const bool all = await([&] { return graph_.sinkPackets() >= goal; }, kPatience);
    const double end = workerNs(0);
    if (!all) {
      throw std::runtime_error("held packets are not re-injected");
    }
    if (ModuleGraph::detachTask(graph_.mfibName(), task_).has_error()) {
      throw std::runtime_error("the re-injecting task cannot be detached");
    }
    deleteRoutes(graph_, {.first = 1, .count = keys_, .fanOut = 1});
    return (end - start) / static_cast<double>(held());
  }

 private:
  static constexpr uint32_t kHeldPerKey = 3;
  static constexpr uint32_t kBurst = bess::PacketBatch::kMaxBurst;
  static constexpr double kPatience = 30;

  uint64_t held() const { return uint64_t{keys_} * kHeldPerKey; }

  void hold() {
    Lane lane = laneOf(frame_, 1, keys_);
    lane.limit = held();
    graph_.source().prepare(0, std::move(lane));
    graph_.attach(0);
    const bool all = await([&] { return graph_.source().packets(0) >= held(); }, kPatience);
    graph_.detach(0);
    if (!all) {
      throw std::runtime_error("packets are not held");
    }
  }

  int tag_ = 0;  // of the task that re-injects; outlives it
  const Graph graph_;
  const uint32_t keys_;
  const Frame frame_;
  task_id_t task_ = kInvalidTaskId;
};

Row reinjection(Mode mode, const Options& options) {
  const uint32_t keys = options.brief ? 320 : 3200;  // a multiple of the burst
  Reinjection cache(mode, keys);
  Samples samples;
  cache.nsPerPacket();  // warm
  for (unsigned i = 0; i < options.runs; ++i) {
    samples.add(cache.nsPerPacket());
  }
  return scenarioRow(named(mode, "re-injection x 1"), "ns/packet", samples);
}

// The framework alone between two ports of the kind that DPDK's own application is measured with.
class NullPorts {
 public:
  NullPorts() {
    bess::pb::PortIncArg in;
    bess::pb::PortOutArg out;
    for (const char* name : {"null0", "null1"}) {
      bess::PortConfig config;
      config.name = name;
      config.devargs = std::string("net_") + name;
      bess::PortRegistry::global().create(config);
    }
    in.set_port("null0");
    out.set_port("null1");
    if (ModuleGraph::createModule("PortInc", kIn, packed(in)).has_error() ||
        ModuleGraph::createModule("PortOut", kOut, packed(out)).has_error() ||
        ModuleGraph::connect(kIn, 0, kOut, 0).has_error()) {
      throw std::runtime_error("no graph between ports");
    }
  }
  ~NullPorts() {
    ModuleGraph::destroyModule(kIn);
    ModuleGraph::destroyModule(kOut);
    bess::PortRegistry::global().closeAll();
  }
  NullPorts(const NullPorts&) = delete;
  NullPorts& operator=(const NullPorts&) = delete;

  double nsPerPacket(double seconds) const {
    const double before = packets();
    const double start = workerNs(0);
    if (ModuleGraph::attachTask(kIn, 0, 0, 0).has_error()) {
      throw std::runtime_error("the port's task cannot be attached");
    }
    sleepFor(seconds);
    if (ModuleGraph::detachTask(kIn, 0).has_error()) {
      throw std::runtime_error("the port's task cannot be detached");
    }
    return (workerNs(0) - start) / (packets() - before);
  }

 private:
  static constexpr const char* kIn = "null.in";
  static constexpr const char* kOut = "null.out";

  double packets() const {
    bess::pb::ModuleCounters counters;
    run(kOut, "showCounters", bess::pb::EmptyModuleArg()).data().UnpackTo(&counters);
    return static_cast<double>(counters.packets());
  }
};

Row portToPort(const Options& options) {
  const NullPorts ports;
  Samples samples;
  ports.nsPerPacket(options.seconds);  // warm
  for (unsigned i = 0; i < options.runs; ++i) {
    samples.add(ports.nsPerPacket(options.seconds));
  }
  return scenarioRow("PortInc -> PortOut, net_null", "ns/packet", samples);
}

}  // namespace

std::vector<Row> runScenarios(const Options& options) {
  std::vector<Row> rows;
  for (const Mode mode : {Mode::kIpv4, Mode::kIpv6}) {
    rows.push_back(wrongInterface(mode, options));
    rows.push_back(unknownFlows(mode, options));
    rows.push_back(besideTheFlood(mode, 1, options));
    rows.push_back(besideTheFlood(mode, 4, options));
    rows.push_back(anySource(mode, options));
    rows.push_back(registerMessages(mode, options));
    rows.push_back(reinjection(mode, options));
  }
  rows.push_back(portToPort(options));
  return rows;
}

namespace {

constexpr unsigned kFanOutOfTwo = 4;

struct TwoWorkers {
  const char* name;
  bool sameRoutes;
  bool sameIntfs;
  double leastSpeedUp;
};

// One worker alone and both together, run by run.
Row measureTwo(const TwoWorkers& kind, const Options& options) {
  const uint32_t routes = sizesOf(options).routes;
  const Graph graph("", Mode::kIpv4);
  const Frame frame = multicastFrame(Mode::kIpv4, kBytes);
  const Routes first = {.first = 1, .count = routes, .fanOut = kFanOutOfTwo};
  Routes second = first;
  addRoutes(graph, first);
  if (!kind.sameRoutes) {
    second.first += routes;
    if (!kind.sameIntfs) {
      second.iif = kOtherInIntf;
      second.firstOif = kFanOutOfTwo;
    }
    addRoutes(graph, second);
  }
  graph.source().prepare(0, laneOf(frame, first.first, routes, first.iif));
  Lane lane = laneOf(frame, second.first, routes, second.iif);
  std::rotate(lane.flows.begin(), lane.flows.begin() + lane.flows.size() / 2, lane.flows.end());
  graph.source().prepare(1, std::move(lane));
  Samples speedUps;
  Samples rates;
  graph.measureBoth(options.seconds);  // warm
  constexpr double kNsPerSecond = 1e9;
  // Short turns: the two cores of a virtual machine do not keep the same speed for long.
  constexpr unsigned kTurns = 6;
  const double seconds = options.seconds / 3;
  for (unsigned i = 0; i < kTurns * options.runs; ++i) {
    const double alone = kNsPerSecond / graph.measure(seconds, kFanOutOfTwo);
    rates.add(graph.measureBoth(seconds));
    speedUps.add(rates.last() / alone);
  }
  Row row = scenarioRow(std::string("two workers, ") + kind.name, "x one", speedUps);
  row.mark = atLeast("x one", speedUps.median(), kind.leastSpeedUp);
  row.numbers = {{"packets_per_second", rates.median()}};
  return row;
}

}  // namespace

std::vector<Row> runTwoWorkers(const Options& options) {
  std::vector<Row> rows;
  for (const TwoWorkers& kind : {TwoWorkers{"disjoint routes and interfaces", false, false, 1.9},
                                 TwoWorkers{"disjoint routes, same interfaces", false, true, 1.9},
                                 TwoWorkers{"same routes", true, true, 1.6}}) {
    rows.push_back(measureTwo(kind, options));
  }
  return rows;
}

}  // namespace bench
