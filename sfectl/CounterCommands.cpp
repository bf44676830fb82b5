#include <memory>
#include <ostream>

#include "Sfe/OrpSharedMem/EntityManager.h"
#include "sfectl/Commands.h"
#include "sfectl/Counters.h"
#include "sfectl/Errors.h"

namespace Sfectl {
namespace {

void showCounters(Session& session, const CounterFilter& filter) {
  CounterReport report;
  const std::string system = OrpSharedMem::systemNameFromEnv();
  if (!report.readAll(system, filter) && report.faults().empty()) {
    session.err() << "sfectl: no such counter tables of system " << printable(system)
                  << " (SYSNAME) in shared memory" << std::endl;
  }
  if (session.json) {
    session.print(
        Json{{"interfaces", report.interfaces().toJson()}, {"routes", report.routes().toJson()}});
  } else {
    session.print(report.interfaces());
    if (!report.interfaces().empty() && !report.routes().empty()) {
      session.out() << "\n";
    }
    session.print(report.routes());
  }
  std::string faults;
  for (const std::string& fault : report.faults()) {
    faults += (faults.empty() ? "" : "; ") + printable(fault);
  }
  if (!faults.empty()) {
    throw RuntimeError(faults);
  }
}

}  // namespace

void addCounterCommands(CLI::App& app, Session& session) {
  auto filter = std::make_shared<CounterFilter>();
  auto* counters = app.add_subcommand("counters", "Traffic counters, from shared memory");
  counters->add_option_function<std::string>(
      "--vrf", [filter](const std::string& vrf) { filter->vrf = vrf; }, "Only this VRF");
  counters
      ->add_option_function<int>(
          "--af",
          [filter](int af) {
            filter->af = af == 4 ? Nynet::AddressFamily::kIpv4 : Nynet::AddressFamily::kIpv6;
          },
          "Only this family, 4 or 6")
      ->check(CLI::IsMember({4, 6}));
  session.bind(counters, [filter](Session& s) { showCounters(s, *filter); });
}

}  // namespace Sfectl
