#include "sfectl/GraphView.h"

#include <algorithm>
#include <map>
#include <set>

#include "sfectl/Rates.h"

namespace Sfectl {
namespace {

// Whatever is not ASCII would stand crooked in a tree.
std::string ascii(const std::string& text) {
  std::string result = printable(text);
  std::replace_if(
      result.begin(), result.end(), [](unsigned char c) { return c >= 0x80; }, '?');
  return result;
}

std::string rateWords(const GraphRate& rate) {
  return rateText(rate.packets) + " packets/s, " + rateText(rate.bits) + " bit/s";
}

class Tree {
 public:
  explicit Tree(const Graph& graph) {
    for (const GraphEdge& edge : graph.edges) {
      edges_[edge.from].push_back(&edge);
      targets_.insert(edge.to);
    }
    for (auto& [name, edges] : edges_) {
      std::stable_sort(edges.begin(), edges.end(),
                       [](const GraphEdge* a, const GraphEdge* b) { return a->ogate < b->ogate; });
    }
    for (const GraphNode& node : graph.nodes) {
      classes_[node.name] = node.className;
    }
    for (const GraphNode& node : graph.nodes) {
      if (!targets_.contains(node.name)) {
        addRoot(node.name);
      }
    }
    // A ring has no module that nothing leads to.
    for (const GraphNode& node : graph.nodes) {
      if (!shown_.contains(node.name)) {
        addRoot(node.name);
      }
    }
  }
  std::string text;

 private:
  void addRoot(const std::string& name) {
    text += label(name) + "\n";
    addBelow(name, "");
  }

  std::string label(const std::string& name) const {
    const auto found = classes_.find(name);
    return ascii(name) + (found == classes_.end() ? "" : " (" + ascii(found->second) + ")");
  }

  void addBelow(const std::string& name, const std::string& indent) {
    shown_.insert(name);
    const auto found = edges_.find(name);
    if (found == edges_.end()) {
      return;
    }
    for (const GraphEdge* edge : found->second) {
      const bool last = edge == found->second.back();
      text += indent + (last ? "`- " : "|- ") + std::to_string(edge->ogate) + " -> " +
              ascii(edge->to) + ":" + std::to_string(edge->igate);
      const bool again = shown_.contains(edge->to) && edges_.contains(edge->to);
      text += again ? " (see above)" : label(edge->to).substr(ascii(edge->to).size());
      text += edge->rate ? "  " + rateWords(*edge->rate) : "";
      text += "\n";
      if (!again) {
        addBelow(edge->to, indent + (last ? "   " : "|  "));
      }
    }
  }

  std::map<std::string, std::vector<const GraphEdge*>> edges_;
  std::map<std::string, std::string> classes_;
  std::set<std::string> targets_;
  std::set<std::string> shown_;
};

std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char c : printable(text)) {
    result += c == '"' || c == '\\' ? "\\" : "";
    result += c;
  }
  return result + "\"";
}

}  // namespace

std::string graphText(const Graph& graph) {
  return Tree(graph).text;
}

std::string graphDot(const Graph& graph) {
  std::string text =
      "digraph sfe {\n  rankdir=LR;\n  node [shape=box, fontname=\"sans-serif\"];\n"
      "  edge [fontname=\"sans-serif\", fontsize=10];\n";
  for (const GraphNode& node : graph.nodes) {
    // The line break between the two is Graphviz's own.
    std::string label = quoted(node.name);
    label.pop_back();
    text += "  " + quoted(node.name) + " [label=" + label + "\\n" +
            quoted("(" + node.className + ")").substr(1) + "];\n";
  }
  for (const GraphEdge& edge : graph.edges) {
    text += "  " + quoted(edge.from) + " -> " + quoted(edge.to) + " [taillabel=\"" +
            std::to_string(edge.ogate) + "\", headlabel=\"" + std::to_string(edge.igate) + "\"";
    text += edge.rate ? ", label=\"" + rateWords(*edge.rate) + "\"" : "";
    text += "];\n";
  }
  return text + "}\n";
}

Json graphJson(const Graph& graph) {
  Json modules = Json::array();
  for (const GraphNode& node : graph.nodes) {
    modules.push_back({{"name", node.name}, {"class", node.className}});
  }
  Json edges = Json::array();
  for (const GraphEdge& edge : graph.edges) {
    Json object{{"from", edge.from}, {"ogate", edge.ogate}, {"to", edge.to}, {"igate", edge.igate}};
    if (edge.rate) {
      object["packets_per_second"] = edge.rate->packets;
      object["bits_per_second"] = edge.rate->bits;
    }
    edges.push_back(std::move(object));
  }
  return Json{{"modules", modules}, {"edges", edges}};
}

}  // namespace Sfectl
