#include "bessd/Daemon.h"

#include <glog/logging.h>

#include <cerrno>
#include <exception>
#include <memory>
#include <stdexcept>
#include <utility>

#include "Base/Orp/SystemException.h"
#include "Bess/Eal.h"
#include "Bess/ModuleGraph.h"
#include "Bess/PacketPool.h"
#include "Bess/Plugin.h"
#include "Bess/PortRegistry.h"
#include "Bess/Worker.h"
#include "Sfe/Counters/Counters.h"
#include "bessd/FrameworkMetrics.h"
#include "bessd/StateMetrics.h"
#include "bessd/States.h"

namespace Bessd {
namespace {

// Says which step of the start failed.
template <class Step>
void step(const std::string& what, Step&& run) {
  try {
    run();
  } catch (const std::exception& error) {
    throw std::runtime_error(what + ": " + error.what());
  }
}

// One step of the stop; the ones after it happen whatever it says.
template <class Step>
void stopStep(const char* what, Step&& run) {
  try {
    run();
  } catch (const std::exception& error) {
    LOG(ERROR) << what << ": " << error.what();
  }
}

void setSettings(const bess::pb::Settings& wanted) {
  if (!wanted.has_publish_period_ms()) {
    return;
  }
  const uint32_t period = wanted.publish_period_ms();
  if (period == 0 || period > Options::kMaxPublishMs) {
    throw Orp::SystemException(EINVAL, "publication period " + std::to_string(period) +
                                           " ms is not between 1 and " +
                                           std::to_string(Options::kMaxPublishMs));
  }
  SfeModules::startCounterPublisher(std::chrono::milliseconds(period));
}

}  // namespace

Daemon::Eal::Eal(const Options& options) {
  step("cannot start the packet library", [&] {
    bess::EalOptions eal;
    eal.hugePages = options.hugePages;
    eal.pci = options.pci;
    eal.memoryMb = options.memoryMb;
    eal.extra = options.eal;
    bess::initEal(eal);
  });
}

Daemon::Eal::~Eal() {
  bess::cleanupEal();
}

Daemon::Pools::Pools(const Options& options) {
  step("cannot make " + std::to_string(options.packets) + " packet buffers of " +
           std::to_string(options.dataRoom) + " bytes in " + std::to_string(options.memoryMb) +
           " MB",
       [&] { bess::PacketPool::createDefaultPools(options.packets, options.dataRoom); });
}

Daemon::Pools::~Pools() {
  bess::PacketPool::destroyDefaultPools();
}

Daemon::Publisher::Publisher(const Options& options) {
  step("cannot start the counter publisher",
       [&] { SfeModules::startCounterPublisher(options.publishPeriod); });
}

Daemon::Publisher::~Publisher() {
  SfeModules::stopCounterPublisher();
}

Daemon::Graph::~Graph() {
  control.call([] {
    stopStep("stopping the workers", [] { destroyAllWorkers(); });
    stopStep("destroying the modules", [] { ModuleGraph::destroyAllModules(); });
    stopStep("closing the ports", [] { bess::PortRegistry::global().closeAll(); });
    stopStep("unloading the plug-ins", [] { Plugin::unloadAll(); });
  });
}

Daemon::Daemon(const Options& options, std::function<void()> shutdown)
    : eal_(options),
      pools_(options),
      publisher_(options),
      graph_(control_),
      service_(control_, extensions(options, counters_, std::move(shutdown))) {
  control_.call([&] {
    addWorkerObserver([](int wid, bool up) {
      if (up) {
        SfeModules::createCounterRow(wid);
      } else {
        SfeModules::destroyCounterRow(wid);
      }
    });
    loadPlugins(options);
    launchWorkers(options);
  });
  step("cannot start the control service",
       [&] { server_ = std::make_unique<bess::ControlServer>(&service_, options.control); });
  startMetrics(options);
}

void Daemon::startMetrics(const Options& options) {
  if (options.metrics.empty()) {
    return;
  }
  const std::string argument =
      options.metricsRoutes == 0 ? "" : "routes=" + std::to_string(options.metricsRoutes);
  step("cannot serve metrics", [&] {
    metrics_ = std::make_unique<MetricsServer>(options.metrics, control_,
                                               [this, argument](MetricFamilies* families) {
                                                 addFrameworkMetrics(counters_, families);
                                                 addModuleMetrics(argument, families);
                                               });
  });
}

bess::ControlExtensions Daemon::extensions(const Options& options,
                                           EventCounters& counters,
                                           std::function<void()> shutdown) {
  bess::ControlExtensions result;
  result.version = SFE_VERSION;
  result.pluginDirectory = options.pluginDirectory;
  result.spin = options.spin;
  result.readOnlyNames = options.tlsReadOnly;
  result.shutdown = std::move(shutdown);
  result.counterId = [&counters](const std::string& name) { return counters.id(name); };
  result.counters = [&counters](bess::pb::CountersResponse* out) { counters.fill(out); };
  result.settings = [](bess::pb::Settings* settings) {
    settings->set_publish_period_ms(
        static_cast<uint32_t>(SfeModules::counterPublisherPeriod().count()));
  };
  result.setSettings = setSettings;
  result.states = ownStates();
  return result;
}

void Daemon::loadPlugins(const Options& options) {
  for (const std::string& name : options.plugins) {
    const std::string path = service_.pluginPath(name);
    step("cannot load plug-in " + path, [&] { Plugin::load(path); });
  }
}

void Daemon::launchWorkers(const Options& options) {
  for (size_t i = 0; i < options.workers.size(); ++i) {
    WorkerOptions worker;
    worker.core = static_cast<int>(options.workers[i]);
    worker.spin = options.spin;
    step("cannot start worker " + std::to_string(i) + " on core " + std::to_string(worker.core),
         [&] { launchWorker(static_cast<int>(i), worker); });
  }
}

}  // namespace Bessd
