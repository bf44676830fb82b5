// How fast a control plane programs a daemon's routes over its control socket: in a stream of
// commands, and one by one. The daemon has an instance `mfib4`, whose routes the benchmark owns.
//
// The time is that of sending, running and answering: the messages are there before, as those of
// `sfectl apply` are when it begins to send.
//
//   control_bench [--socket TARGET] [--runs N] [--routes N] [--single N] [--only-add] [--json FILE]

#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "bench/BenchRoutes.h"
#include "bench/Figures.h"
#include "sfectl/Client.h"

namespace {

using Request = bess::pb::ModuleCommandRequest;

constexpr const char* kModule = "mfib4";

struct Options {
  std::string socket = Sfectl::kDefaultSocket;
  unsigned runs = 5;
  uint32_t routes = 100'000;
  uint32_t single = 5'000;  // routes that are sent one by one
  bool onlyAdd = false;     // for others who measure something of a daemon with routes
  std::string json;
};

std::vector<Request> commandsOf(const char* command, uint32_t count) {
  std::vector<Request> requests;
  requests.reserve(count);
  for (uint32_t n = 0; n < count; ++n) {
    requests.push_back(bench::routeCommand(kModule, command, n));
  }
  return requests;
}

template <class Work>
double perSecond(size_t count, Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  return static_cast<double>(count) / elapsed.count();
}

double streamed(Sfectl::Client& client, const std::vector<Request>& requests) {
  std::vector<const Request*> pointers;
  pointers.reserve(requests.size());
  for (const Request& request : requests) {
    pointers.push_back(&request);
  }
  return perSecond(requests.size(), [&] {
    size_t done = 0;
    client.commands(pointers, done);
  });
}

double oneByOne(Sfectl::Client& client, const std::vector<Request>& requests) {
  return perSecond(requests.size(), [&] {
    for (const Request& request : requests) {
      client.command(request.module(), request.command(), request.arg());
    }
  });
}

std::vector<bench::Figure> measure(const Options& options) {
  std::vector<bench::Figure> figures = {
      {"addMroute in a stream", "1/s", ">= 300000", {}},
      {"deleteMroute in a stream", "1/s", ">= 300000", {}},
      {"addMroute one by one", "1/s", ">= 8000", {}},
      {"deleteMroute one by one", "1/s", ">= 8000", {}},
  };
  const auto adds = commandsOf("addMroute", options.routes);
  const auto deletes = commandsOf("deleteMroute", options.routes);
  const auto someAdds = commandsOf("addMroute", options.single);
  const auto someDeletes = commandsOf("deleteMroute", options.single);
  Sfectl::Client client(options.socket);
  streamed(client, adds);  // memory is mapped, code is warm
  if (options.onlyAdd) {
    return {};
  }
  streamed(client, deletes);
  for (unsigned run = 0; run < options.runs; ++run) {
    figures[2].samples.add(oneByOne(client, someAdds));
    figures[3].samples.add(oneByOne(client, someDeletes));
    figures[0].samples.add(streamed(client, adds));
    figures[1].samples.add(streamed(client, deletes));
  }
  return figures;
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("How fast a daemon's routes are programmed");
  Options options;
  app.add_option("--socket", options.socket, "the daemon's control socket");
  app.add_option("--runs", options.runs)->check(CLI::PositiveNumber);
  app.add_option("--routes", options.routes, "in a stream")->check(CLI::PositiveNumber);
  app.add_option("--single", options.single, "routes that are sent one by one");
  app.add_flag("--only-add", options.onlyAdd, "add the routes and leave them there");
  app.add_option("--json", options.json, "file for the figures");
  CLI11_PARSE(app, argc, argv);
  const auto figures = measure(options);
  bench::printFigures(stdout, figures);
  if (!options.json.empty()) {
    bench::writeFiguresJson(options.json, figures);
  }
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "control_bench: %s\n", error.what());
  return 1;
}
