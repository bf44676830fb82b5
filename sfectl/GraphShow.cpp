// `sfectl graph`: the connections with what passes them now. What counts is the hook "track"; where
// a gate has none, one is put there for as long as it is needed.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <ostream>

#include "sfectl/Commands.h"
#include "sfectl/Errors.h"
#include "sfectl/GraphView.h"
#include "sfectl/Rates.h"
#include "sfectl/StopSignals.h"

extern char** environ;

namespace Sfectl {
namespace {

using Stub = Client::Stub;
using SteadyClock = std::chrono::steady_clock;
using Gate = std::pair<std::string, uint32_t>;  // of output

constexpr const char* kTrack = "track";
constexpr double kMaxInterval = 3600;

struct GraphWords {
  bool dot = false;
  bool noRates = false;
  std::string svg;
  double interval = 1;
};

struct Traffic {
  uint64_t packets = 0;
  uint64_t bytes = 0;
};

std::map<Gate, Traffic> tracked(Client& client) {
  std::map<Gate, Traffic> result;
  const auto answer = client.call(&Stub::ListHooks);
  for (const auto& hook : answer.hooks()) {
    if (hook.where().hook() == kTrack && hook.where().direction() == bess::pb::GATE_OUT) {
      result[{hook.where().module(), hook.where().gate()}] = {hook.packets(), hook.bytes()};
    }
  }
  return result;
}

// The hooks that were not there before; they go with it.
class TrackHooks {
 public:
  TrackHooks(Client& client, const std::vector<GraphEdge>& edges) : client_(client) {
    const auto before = tracked(client);
    try {
      for (const GraphEdge& edge : edges) {
        if (!before.contains({edge.from, edge.ogate})) {
          client.call(&Stub::AddHook, request({edge.from, edge.ogate}));
          added_.emplace_back(edge.from, edge.ogate);
        }
      }
    } catch (...) {
      removeAll();
      throw;
    }
  }
  ~TrackHooks() { removeAll(); }
  TrackHooks(const TrackHooks&) = delete;
  TrackHooks& operator=(const TrackHooks&) = delete;

 private:
  static bess::pb::HookRequest request(const Gate& gate) {
    bess::pb::HookRequest result;
    result.set_hook(kTrack);
    result.set_module(gate.first);
    result.set_direction(bess::pb::GATE_OUT);
    result.set_gate(gate.second);
    return result;
  }
  void removeAll() {
    for (const Gate& gate : added_) {
      try {
        client_.call(&Stub::RemoveHook, request(gate));
      } catch (const RuntimeError&) {  // somebody took the module, and the hook with it
      }
    }
    added_.clear();
  }

  Client& client_;
  std::vector<Gate> added_;
};

Graph readGraph(Client& client) {
  Graph graph;
  const auto modules = client.call(&Stub::ListModules);
  for (const auto& module : modules.modules()) {
    graph.nodes.push_back({module.name(), module.class_name()});
  }
  const auto connections = client.call(&Stub::ListConnections);
  for (const auto& edge : connections.connections()) {
    graph.edges.push_back({edge.m1(), edge.ogate(), edge.m2(), edge.igate(), {}});
  }
  return graph;
}

void waitUnlessStopped(StopSignals& stop, double seconds) {
  constexpr double kMsPerSecond = 1000;
  pollfd fds[] = {{stop.fd(), POLLIN, 0}};
  if (poll(fds, 1, static_cast<int>(std::ceil(seconds * kMsPerSecond))) > 0) {
    throw RuntimeError("interrupted");
  }
}

void measure(Client& client, StopSignals& stop, double interval, Graph& graph) {
  const TrackHooks hooks(client, graph.edges);
  const auto start = SteadyClock::now();
  const auto before = tracked(client);
  waitUnlessStopped(stop, interval);
  const auto after = tracked(client);
  const double seconds = std::chrono::duration<double>(SteadyClock::now() - start).count();
  for (GraphEdge& edge : graph.edges) {
    const auto first = before.find({edge.from, edge.ogate});
    const auto last = after.find({edge.from, edge.ogate});
    if (first != before.end() && last != after.end()) {
      edge.rate = {rateOf(first->second.packets, last->second.packets, seconds),
                   rateOf(first->second.bytes, last->second.bytes, seconds) * kBitsPerByte};
    }
  }
}

// Starts the program that draws, its standard input at the other end of `input`.
pid_t startDot(const std::string& file, int* input) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw RuntimeError(std::string("cannot make a pipe: ") + std::strerror(errno));
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
  std::string name = "dot";
  std::string format = "-Tsvg";
  std::string output = "-o" + file;
  char* argv[] = {name.data(), format.data(), output.data(), nullptr};
  pid_t pid = 0;
  const int error = posix_spawnp(&pid, "dot", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[0]);
  if (error != 0) {
    close(ends[1]);
    throw RuntimeError(error == ENOENT ? "--svg needs the program dot; install the package graphviz"
                                       : std::string("cannot start dot: ") + std::strerror(error));
  }
  *input = ends[1];
  return pid;
}

void writeSvg(const std::string& dot, const std::string& file) {
  int input = -1;
  const pid_t pid = startDot(file, &input);
  size_t done = 0;
  while (done < dot.size()) {
    const ssize_t n = write(input, dot.data() + done, dot.size() - done);
    if (n < 0 && errno != EINTR) {
      break;  // it ended: its exit code tells why
    }
    done += n > 0 ? static_cast<size_t>(n) : 0;
  }
  close(input);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || done < dot.size()) {
    throw RuntimeError("dot could not write " + printable(file));
  }
}

void showGraph(Session& session, const GraphWords& words) {
  StopSignals stop;
  Client& client = session.client();
  Graph graph = readGraph(client);
  if (!words.noRates) {
    measure(client, stop, words.interval, graph);
  }
  if (!words.svg.empty()) {
    writeSvg(graphDot(graph), words.svg);
  } else if (session.json) {
    session.print(graphJson(graph));
  } else {
    session.out() << (words.dot ? graphDot(graph) : graphText(graph));
  }
}

}  // namespace

void addGraphShow(CLI::App& app, Session& session) {
  auto words = std::make_shared<GraphWords>();
  auto* graph = app.add_subcommand("graph", "The packet graph, with what passes it now");
  auto* dot = graph->add_flag("--dot", words->dot, "Print it for Graphviz");
  graph->add_option("--svg", words->svg, "Draw it into this file (needs Graphviz)")->excludes(dot);
  auto* interval =
      graph->add_option("--interval", words->interval, "Seconds over which rates are measured")
          ->check(CLI::Range(0.001, kMaxInterval))
          ->capture_default_str();
  graph->add_flag("--no-rates", words->noRates, "Only the connections; touches nothing")
      ->excludes(interval);
  session.bind(graph, [words](Session& s) { showGraph(s, *words); });
}

}  // namespace Sfectl
