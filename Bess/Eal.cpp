#include "Bess/Eal.h"

#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_lcore.h>
#include <rte_version.h>

#include <cerrno>

#include "Base/Orp/SystemException.h"
#include "Bess/Cores.h"

namespace bess {
namespace {

// The main thread stays free to run on every core that the process may use.
std::string floatingMainThread() {
  std::string cores;
  for (int core : usableCores()) {
    cores += (cores.empty() ? "" : ",") + std::to_string(core);
  }
  return "--lcores=0@(" + cores + ")";
}

}  // namespace

std::vector<std::string> ealArguments(const EalOptions& options) {
  std::vector<std::string> args = {"bess", floatingMainThread(), "--no-telemetry", "-m",
                                   std::to_string(options.memoryMb)};
  // Neither leaves files behind. The library takes --in-memory with huge pages only.
  if (options.hugePages) {
    args.emplace_back("--in-memory");
  } else {
    args.insert(args.end(), {"--no-huge", "--no-shconf", "--iova-mode=va"});
  }
  if (!options.pci) {
    args.emplace_back("--no-pci");
  }
  args.insert(args.end(), options.extra.begin(), options.extra.end());
  return args;
}

void initEal(const EalOptions& options) {
  if (ealRunning()) {
    throw Orp::SystemException(EALREADY, "DPDK runs already");
  }
  // The library keeps pointers into its arguments.
  static std::vector<std::string> kept;
  static std::vector<char*> argv;
  kept = ealArguments(options);
  argv.clear();
  for (std::string& arg : kept) {
    argv.push_back(arg.data());
  }
  const int argc = static_cast<int>(argv.size());
  argv.push_back(nullptr);
  if (rte_eal_init(argc, argv.data()) < 0) {
    throw Orp::SystemException(rte_errno, "DPDK does not start");
  }
}

void cleanupEal() {
  rte_eal_cleanup();
}

std::string ealVersion() {
  return rte_version();
}

bool ealRunning() {
  return rte_lcore_count() > 0;
}

}  // namespace bess
