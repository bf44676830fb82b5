// The service's frame, and the requests about the daemon as a whole: version, shutdown, pause,
// plug-ins, statistics.
#include "Bess/ControlService.h"

#include <rte_lcore.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "Bess/ControlInfo.h"
#include "Bess/Eal.h"
#include "Bess/ModuleGraph.h"
#include "Bess/PacketPool.h"
#include "Bess/Plugin.h"
#include "Bess/PortRegistry.h"
#include "Bess/Worker.h"

namespace bess {
namespace {

[[noreturn]] void refuse(int error, const char* what) {
  throw std::system_error(error, std::generic_category(), what);
}

void addPools(pb::StatsResponse* response) {
  uint64_t total = 0;
  uint64_t used = 0;
  const PacketPool* previous = nullptr;
  // A node without a pool of its own answers with another node's.
  for (unsigned i = 0; i < rte_socket_count(); ++i) {
    const int socket = rte_socket_id_by_idx(i);
    const PacketPool* pool = PacketPool::defaultPool(socket);
    if (pool != nullptr && pool != previous && pool->socket() == socket) {
      total += pool->capacity();
      used += pool->inUse();
      previous = pool;
    }
  }
  response->set_packets_total(total);
  response->set_packets_in_use(used);
}

}  // namespace

ControlService::ControlService(ControlThread& control, ControlExtensions extensions)
    : control_(control),
      extensions_(std::move(extensions)),
      access_(ControlAccess::Scope::kEverything, extensions_.readOnlyNames),
      started_(std::chrono::steady_clock::now()),
      paused_(std::make_shared<bool>(false)) {}

ControlService::ControlService(const ControlService& everything, ControlAccess::Scope scope)
    : control_(everything.control_),
      extensions_(everything.extensions_),
      access_(scope),
      started_(everything.started_),
      paused_(everything.paused_) {}

std::unique_ptr<ControlService> ControlService::readOnly() const {
  return std::unique_ptr<ControlService>(new ControlService(*this, ControlAccess::Scope::kReads));
}

std::string ControlService::pluginPath(const std::string& name) const {
  const bool plain = !name.empty() && name.find('/') == std::string::npos;
  return plain && !extensions_.pluginDirectory.empty() ? extensions_.pluginDirectory + "/" + name
                                                       : name;
}

grpc::Status ControlService::stopping() {
  return {grpc::StatusCode::UNAVAILABLE, "the daemon is stopping"};
}

grpc::Status ControlService::onControlThread(const std::function<void()>& work) {
  try {
    control_.callHere(work);
    return grpc::Status::OK;
  } catch (const std::exception&) {
    return stopping();
  }
}

pb::Error ControlService::currentError() {
  try {
    throw;
  } catch (const PortError& error) {
    pb::Error result;
    result.set_code(error.errnoValue());
    result.set_errmsg(error.what());
    return result;
  } catch (...) {
    return errorFromException(std::current_exception());
  }
}

void ControlService::handleGetVersion(const pb::EmptyRequest&, pb::VersionResponse* response) {
  response->set_version(extensions_.version);
  response->set_dpdk_version(ealVersion());
  response->set_pid(getpid());
}

void ControlService::handleShutdown(const pb::EmptyRequest&, pb::EmptyResponse*) {
  if (!extensions_.shutdown) {
    refuse(ENOTSUP, "this program does not stop on request");
  }
  extensions_.shutdown();
}

void ControlService::handlePauseAll(const pb::EmptyRequest&, pb::EmptyResponse*) {
  if (!*paused_) {
    pauseWorkers();
    *paused_ = true;
  }
}

void ControlService::handleResumeAll(const pb::EmptyRequest&, pb::EmptyResponse*) {
  if (*paused_) {
    *paused_ = false;
    resumeWorkers();
  }
}

void ControlService::handleLoadPlugin(const pb::PluginRequest& request, pb::EmptyResponse*) {
  Plugin::load(pluginPath(request.path()));
}

void ControlService::handleUnloadPlugin(const pb::PluginRequest& request, pb::EmptyResponse*) {
  Plugin::unload(pluginPath(request.path()));
}

void ControlService::handleListPlugins(const pb::EmptyRequest&, pb::ListPluginsResponse* response) {
  for (const PluginInfo& plugin : Plugin::list()) {
    response->add_paths(plugin.path);
    pb::PluginInfo* info = response->add_plugins();
    info->set_path(plugin.path);
    info->set_version(plugin.version);
  }
}

void ControlService::handleGetSettings(const pb::EmptyRequest&, pb::SettingsResponse* response) {
  if (extensions_.settings) {
    extensions_.settings(response->mutable_settings());
  }
}

void ControlService::handleSetSettings(const pb::Settings& request, pb::EmptyResponse*) {
  if (!extensions_.setSettings) {
    refuse(ENOTSUP, "this program has no settings that may change");
  }
  extensions_.setSettings(request);
}

void ControlService::handleGetStats(const pb::EmptyRequest&, pb::StatsResponse* response) {
  const auto nanoseconds = [](auto duration) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count();
  };
  const auto now = std::chrono::steady_clock::now();
  response->set_timestamp_ns(nanoseconds(now.time_since_epoch()));
  response->set_uptime_ns(nanoseconds(now - started_));
  response->set_paused(*paused_);
  addPools(response);
  for (const WorkerStatus& status : workerStatus()) {
    fillInfo(status, response->add_workers());
  }
  for (const Port* port : PortRegistry::global().ports()) {
    fillInfo(*port, response->add_ports());
  }
  for (const Module* module : ModuleGraph::modules()) {
    fillInfo(*module, response->add_modules());
  }
}

void ControlService::handleCounterId(const pb::NameRequest& request,
                                     pb::CounterIdResponse* response) {
  if (!extensions_.counterId) {
    refuse(ENOTSUP, "this program keeps no event counters");
  }
  response->set_id(extensions_.counterId(request.name()));
}

void ControlService::handleGetCounters(const pb::EmptyRequest&, pb::CountersResponse* response) {
  if (extensions_.counters) {
    extensions_.counters(response);
  }
}

}  // namespace bess
