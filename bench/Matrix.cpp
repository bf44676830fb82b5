#include "bench/Matrix.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <tuple>

#include "Bess/PacketPool.h"
#include "bench/CopyFloor.h"
#include "bench/Rig.h"

namespace bench {

namespace {

constexpr uint32_t kManyRoutes = 1000000;
constexpr uint32_t kFewRoutes = 1000;

struct Case {
  Mode mode;
  unsigned fanOut;
  uint32_t routes;
  unsigned bytes;

  // Cases of one instance and its routes stand together.
  auto instance() const { return std::tuple(mode, fanOut, routes); }
  auto key() const { return std::tuple(mode, fanOut, routes, bytes); }
};

std::vector<Case> casesOf(const std::vector<Block>& blocks) {
  std::vector<Case> cases;
  for (const Block& block : blocks) {
    for (const Mode mode : block.modes) {
      for (const unsigned fanOut : block.fanOuts) {
        for (const uint32_t routes : block.routes) {
          for (const unsigned bytes : block.sizes) {
            cases.push_back({mode, fanOut, routes, bytes});
          }
        }
      }
    }
  }
  const auto before = [](const Case& a, const Case& b) { return a.key() < b.key(); };
  const auto same = [](const Case& a, const Case& b) { return a.key() == b.key(); };
  std::sort(cases.begin(), cases.end(), before);
  cases.erase(std::unique(cases.begin(), cases.end(), same), cases.end());
  return cases;
}

// What one copy may cost, as a multiple of the copy alone; 0 where nothing is said.
double ratioMark(unsigned bytes, unsigned fanOut) {
  if (fanOut == 4) {
    return bytes == 64 ? 2.5 : bytes == 1500 ? 1.5 : 0;
  }
  if (fanOut == 16) {
    return bytes == 64 ? 2.0 : bytes == 1500 ? 1.3 : 0;
  }
  return 0;
}

constexpr double kMostNsOverTheGraph = 60;
constexpr double kMostNsForManyRoutes = 60;

// Nanoseconds per packet. What is compared is compared run by run: a virtual machine may change its
// speed between two of them.
struct Measured {
  Samples forward;
  Samples graphFloor;
  Samples floor;
  Samples ratio;
  Samples overGraph;
  Samples overFew;  // more than with few routes; of many routes only
};

// The graphs that a case is held against, all of its mode.
struct Graphs {
  const Graph* forward;
  const Graph* without;
  const Graph* few;  // null where nothing is said of many routes
};

Row rowOf(const Case& c, const Measured& measured) {
  const Samples& forward = measured.forward;
  const Samples& floor = measured.floor;
  const double perCopy = 1.0 / c.fanOut;
  const double ratio = measured.ratio.median();
  const double overGraph = measured.overGraph.median();
  Row row;
  row.name = std::string(modeName(c.mode)) + " " + std::to_string(c.bytes) + " B x " +
             std::to_string(c.fanOut) + ", " + std::to_string(c.routes) +
             (c.routes == 1 ? " route" : " routes");
  row.unit = "ns/copy";
  row.samples = forward.times(perCopy);
  if (measured.overFew.count() != 0) {
    row.mark =
        atMost("ns/packet more than with 1000", measured.overFew.median(), kMostNsForManyRoutes);
  } else if (c.routes <= kFewRoutes && c.fanOut == 1) {
    row.mark = atMost("ns over the graph without it", overGraph, kMostNsOverTheGraph);
  } else if (const double most = ratioMark(c.bytes, c.fanOut); most > 0 && c.routes <= kFewRoutes) {
    row.mark = atMost("x the copy", ratio, most);
  }
  row.numbers = {{"bytes", c.bytes},
                 {"fan_out", c.fanOut},
                 {"routes", c.routes},
                 {"ns_per_packet", forward.median()},
                 {"floor", floor.median() * perCopy},
                 {"floor_min", floor.min() * perCopy},
                 {"floor_max", floor.max() * perCopy},
                 {"ratio", ratio},
                 {"graph_floor", measured.graphFloor.median()},
                 {"over_graph", overGraph}};
  row.words = {{"group", "forwarding"}, {"mode", modeName(c.mode)}};
  return row;
}

// Warm: a flow's first packet makes its counters.
void warm(const Graph& graph, const Case& c, const Options& options) {
  const uint64_t before = graph.source().packets(0);
  do {
    graph.measure(options.seconds, c.fanOut);
  } while (graph.source().packets(0) - before < c.routes);
}

void prepare(const Graph& graph, const Frame& frame, uint32_t routes) {
  graph.source().prepare(
      0, {.frame = frame, .flows = shuffledFlows(frame, 1, routes), .inIntf = intfId(kInIntf)});
}

Row measureCase(const Case& c, const Graphs& graphs, const Options& options) {
  const Frame frame = multicastFrame(c.mode, c.bytes);
  prepare(*graphs.forward, frame, c.routes);
  prepare(*graphs.without, frame, c.routes);
  if (graphs.few != nullptr) {
    prepare(*graphs.few, frame, kFewRoutes);
  }
  Measured measured;
  warm(*graphs.forward, c, options);
  for (unsigned run = 0; run < options.runs; ++run) {
    measured.forward.add(graphs.forward->measure(options.seconds, c.fanOut));
    measured.graphFloor.add(graphs.without->measure(options.seconds, 1));
    if (graphs.few != nullptr) {
      measured.overFew.add(measured.forward.last() -
                           graphs.few->measure(options.seconds, c.fanOut));
    }
    {
      const OnTheWorkersCore here;
      measured.floor.add(copyFloorNsPerPacket(*bess::PacketPool::defaultPool(),
                                              static_cast<unsigned>(frame.bytes.size()), c.fanOut,
                                              options.seconds));
    }
    measured.ratio.add(measured.forward.last() / measured.floor.last());
    measured.overGraph.add(measured.forward.last() - measured.graphFloor.last());
  }
  return rowOf(c, measured);
}

}  // namespace

std::vector<Row> runMatrix(const Options& options) {
  std::vector<Row> rows;
  const Graph without("floor.");
  std::unique_ptr<Graph> graph;
  std::unique_ptr<Graph> few;
  const Case* built = nullptr;
  const std::vector<Case> cases = casesOf(options.blocks);
  for (const Case& c : cases) {
    if (built == nullptr || built->instance() != c.instance()) {
      few.reset();
      graph.reset();
      graph = std::make_unique<Graph>("", c.mode);
      addRoutes(*graph, {.first = 1, .count = c.routes, .fanOut = c.fanOut});
      if (c.routes == kManyRoutes) {
        few = std::make_unique<Graph>("few.", c.mode);
        addRoutes(*few, {.first = 1, .count = kFewRoutes, .fanOut = c.fanOut});
      }
      built = &c;
    }
    const Graphs graphs = {.forward = graph.get(), .without = &without, .few = few.get()};
    rows.push_back(measureCase(c, graphs, options));
    std::fprintf(stderr, "%s: %.1f ns/copy\n", rows.back().name.c_str(),
                 rows.back().samples.median());
  }
  return rows;
}

}  // namespace bench
