// What a multicast instance's routes cost inside the daemon, without the way there: commands per
// second, memory for each route, and the publication of counters.
//
//   route_bench [--runs N] [--routes N] [--json FILE]

#include <malloc.h>
#include <rte_malloc.h>
#include <unistd.h>
#include <urcu-qsbr.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Bess/Eal.h"
#include "Bess/ModuleGraph.h"
#include "Bess/PacketPool.h"
#include "SfeModules/Mfib.h"
#include "bench/BenchRoutes.h"
#include "bench/Figures.h"

namespace {

using Request = bess::pb::ModuleCommandRequest;
using SfeModules::Mfib;

constexpr const char* kModule = "mfib4";
constexpr unsigned kPoolPackets = 2047;
constexpr uint32_t kRecords = 60'000;  // that are published at once
constexpr uint32_t kTurn = 256;        // commands between two quiescent states

struct Options {
  unsigned runs = 5;
  uint32_t routes = 100'000;
  std::string json;
};

Mfib& createInstance() {
  sfe::pb::MfibArg arg;
  arg.set_vrfname("default");
  arg.set_af(SfeModules::kAfIpv4);
  google::protobuf::Any any;
  any.PackFrom(arg);
  if (const auto answer = ModuleGraph::createModule("Mfib", kModule, any); answer.has_error()) {
    throw std::runtime_error(answer.error().errmsg());
  }
  return *static_cast<Mfib*>(ModuleGraph::findModule(kModule));
}

template <class Work>
double seconds(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  return elapsed.count();
}

void run(const std::vector<Request>& requests) {
  uint32_t left = kTurn;
  for (const Request& request : requests) {
    const CommandResponse answer =
        ModuleGraph::runCommand(request.module(), request.command(), request.arg());
    if (answer.has_error()) {
      throw std::runtime_error(answer.error().errmsg());
    }
    if (--left == 0) {
      urcu_qsbr_quiescent_state();
      left = kTurn;
    }
  }
}

// What was removed is given back by the time this returns.
void reclaim() {
  urcu_qsbr_thread_offline();
  urcu_qsbr_barrier();
  urcu_qsbr_thread_online();
}

// Bytes that both heaps have given out.
double heapBytes() {
  double bytes = 0;
  for (int socket = 0; socket < RTE_MAX_NUMA_NODES; ++socket) {
    rte_malloc_socket_stats stats;
    if (rte_malloc_get_socket_stats(socket, &stats) == 0) {
      bytes += static_cast<double>(stats.heap_allocsz_bytes);
    }
  }
  const struct mallinfo2 heap = mallinfo2();
  return bytes + static_cast<double>(heap.uordblks) + static_cast<double>(heap.hblkhd);
}

// One packet counted for each of the routes, so that each has a record to publish.
void countPackets(Mfib& mfib, uint32_t routes) {
  for (uint32_t n = 0; n < routes; ++n) {
    const auto route = bench::benchRoute(n);
    const auto key = SfeModules::MfibKey::of(
        reinterpret_cast<const uint8_t*>(route.source().data()),
        reinterpret_cast<const uint8_t*>(route.group().data()), SfeModules::kIpv4AddrLen);
    auto entry = mfib.forceLookupMrtCtrUpdates(key);
    entry->pktsIn += 1;
    entry->bytesIn += 100;
    if (n % kTurn == 0) {
      urcu_qsbr_quiescent_state();
    }
  }
}

std::vector<bench::Figure> measure(const Options& options) {
  std::vector<bench::Figure> figures = {
      {"addMroute inside the daemon", "1/s", "", {}},
      {"addMroute that replaces inside the daemon", "1/s", "", {}},
      {"deleteMroute inside the daemon", "1/s", "", {}},
      {"heap for a route with 4 outgoing interfaces", "bytes", "", {}},
      {"publication of 60,000 route records", "ms", "", {}},
  };
  Mfib& mfib = createInstance();
  std::vector<Request> adds;
  std::vector<Request> deletes;
  for (uint32_t n = 0; n < options.routes; ++n) {
    adds.push_back(bench::routeCommand(kModule, "addMroute", n));
    deletes.push_back(bench::routeCommand(kModule, "deleteMroute", n));
  }
  const double routes = options.routes;
  run({adds.begin(), adds.begin() + std::min<ptrdiff_t>(kTurn, options.routes)});
  run({deletes.begin(), deletes.begin() + std::min<ptrdiff_t>(kTurn, options.routes)});
  for (unsigned i = 0; i < options.runs; ++i) {
    reclaim();
    const double before = heapBytes();
    figures[0].samples.add(routes / seconds([&] { run(adds); }));
    figures[3].samples.add((heapBytes() - before) / routes);
    figures[1].samples.add(routes / seconds([&] { run(adds); }));
    countPackets(mfib, std::min(kRecords, options.routes));
    figures[4].samples.add(1e3 * seconds([&] { SfeModules::updatePellMrouteCounters(&mfib); }));
    figures[2].samples.add(routes / seconds([&] { run(deletes); }));
  }
  return figures;
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("What routes cost inside the daemon");
  Options options;
  app.add_option("--runs", options.runs)->check(CLI::PositiveNumber);
  app.add_option("--routes", options.routes)->check(CLI::PositiveNumber);
  app.add_option("--json", options.json, "file for the figures");
  CLI11_PARSE(app, argc, argv);
  setenv("SYSNAME", ("routebench" + std::to_string(getpid())).c_str(), 1);
  bess::initEal({.memoryMb = 512, .extra = {"--log-level=lib.eal:4"}});
  bess::PacketPool::createDefaultPools(kPoolPackets);
  urcu_qsbr_register_thread();
  const auto figures = measure(options);
  ModuleGraph::destroyAllModules();
  reclaim();
  urcu_qsbr_unregister_thread();
  bench::printFigures(stdout, figures);
  if (!options.json.empty()) {
    bench::writeFiguresJson(options.json, figures);
  }
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "route_bench: %s\n", error.what());
  return 1;
}
