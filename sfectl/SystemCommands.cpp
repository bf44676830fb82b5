#include <ostream>

#include "sfectl/Commands.h"
#include "sfectl/Results.h"

namespace Sfectl {
namespace {

using Stub = Client::Stub;

void version(Session& session) {
  const auto answer = session.client().call(&Stub::GetVersion);
  const auto plugins = session.client().call(&Stub::ListPlugins);
  Json value{{"client", SFE_VERSION},
             {"daemon", answer.version()},
             {"dpdk", answer.dpdk_version()},
             {"pid", answer.pid()}};
  value["plugins"] = pluginReport(plugins).toJson();
  if (session.json) {
    session.print(value);
    return;
  }
  session.out() << "sfectl " << SFE_VERSION << "\nbessd " << printable(answer.version()) << " (pid "
                << answer.pid() << ", " << printable(answer.dpdk_version()) << ")\n";
  for (const auto& plugin : plugins.plugins()) {
    session.out() << printable(plugin.path()) << " "
                  << (plugin.version().empty() ? "of no version" : printable(plugin.version()))
                  << "\n";
  }
}

void printStatsText(Session& session,
                    const bess::pb::StatsResponse& stats,
                    const std::vector<Report>& tables) {
  constexpr uint64_t kNsPerSecond = 1'000'000'000;
  session.out() << "up " << stats.uptime_ns() / kNsPerSecond << " s, "
                << (stats.paused() ? "paused" : "running") << ", " << stats.packets_in_use()
                << " of " << stats.packets_total() << " packet buffers in use\n";
  for (const Report& table : tables) {
    if (!table.empty()) {
      session.out() << "\n";
      table.printText(session.out());
    }
  }
}

void stats(Session& session) {
  const auto answer = session.client().call(&Stub::GetStats);
  const auto counters = session.client().call(&Stub::GetCounters);
  const std::vector<Report> tables{
      workerReport(answer.workers()), portCounterReport(answer.ports()),
      moduleReport(answer.modules()), counterReport(counters.counters())};
  if (!session.json) {
    printStatsText(session, answer, tables);
    return;
  }
  session.print(Json{{"uptime_ns", answer.uptime_ns()},
                     {"paused", answer.paused()},
                     {"packets_total", answer.packets_total()},
                     {"packets_in_use", answer.packets_in_use()},
                     {"workers", tables[0].toJson()},
                     {"ports", tables[1].toJson()},
                     {"modules", tables[2].toJson()},
                     {"counters", tables[3].toJson()}});
}

}  // namespace

void addSystemCommands(CLI::App& app, Session& session) {
  session.bind(
      app.add_subcommand("version", "Versions of this program, of the daemon and of its plug-ins"),
      version);
  session.bind(app.add_subcommand("shutdown", "Stop the daemon"),
               [](Session& s) { s.client().call(&Stub::Shutdown); });
  session.bind(app.add_subcommand("pause", "Stop all workers until a resume"),
               [](Session& s) { s.client().call(&Stub::PauseAll); });
  session.bind(app.add_subcommand("resume", "Let all workers run"),
               [](Session& s) { s.client().call(&Stub::ResumeAll); });
  session.bind(app.add_subcommand("stats", "Workers, ports, modules and event counters"), stats);
}

}  // namespace Sfectl
