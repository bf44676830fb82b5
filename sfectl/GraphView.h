// The packet graph as a picture of characters, for Graphviz, and for programs.
//
// Invariants :
//   (1) every connection appears exactly once, also in a graph with rings.
//   (2) text is plain ASCII without control characters, whatever the modules are called.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sfectl/Report.h"

namespace Sfectl {

struct GraphNode {
  std::string name;
  std::string className;
};

struct GraphRate {
  double packets = 0;  // per second
  double bits = 0;
};

struct GraphEdge {
  std::string from;
  uint32_t ogate = 0;
  std::string to;
  uint32_t igate = 0;
  std::optional<GraphRate> rate;
};

struct Graph {
  std::vector<GraphNode> nodes;
  std::vector<GraphEdge> edges;
};

// rx1 (PortInc)
// `- 0 -> in:0 (IntfIn)  1.0k packets/s, 1.0M bit/s
//    |- 0 -> mfib4:0 (Mfib)  ...
// What was shown before is only named: "in:0 (see above)".
std::string graphText(const Graph& graph);
std::string graphDot(const Graph& graph);
Json graphJson(const Graph& graph);

}  // namespace Sfectl
