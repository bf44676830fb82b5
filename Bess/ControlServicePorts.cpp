// The control service's requests about workers, tasks and ports.
#include <cerrno>
#include <limits>
#include <string>
#include <system_error>

#include "Bess/ControlInfo.h"
#include "Bess/ControlService.h"
#include "Bess/ModuleGraph.h"
#include "Bess/PortRegistry.h"
#include "Bess/Worker.h"

namespace bess {
namespace {

// A number of a request as the framework's smaller type.
template <class Narrow>
Narrow narrow(uint32_t value, const char* what) {
  if (value > static_cast<uint32_t>(std::numeric_limits<Narrow>::max())) {
    throw std::system_error(EINVAL, std::generic_category(),
                            std::string(what) + " " + std::to_string(value) + " is too large");
  }
  return static_cast<Narrow>(value);
}

PortConfig portConfig(const pb::CreatePortRequest& request) {
  PortConfig config;
  config.name = request.name();
  config.devargs = request.devargs();
  if (request.has_rxq()) {
    config.rxQueues = narrow<uint16_t>(request.rxq(), "number of receive queues");
  }
  if (request.has_txq()) {
    config.txQueues = narrow<uint16_t>(request.txq(), "number of transmit queues");
  }
  if (request.has_queue_size()) {
    config.queueSize = narrow<uint16_t>(request.queue_size(), "queue size");
  }
  if (request.has_mtu()) {
    config.mtu = narrow<uint16_t>(request.mtu(), "MTU");
  }
  if (request.has_promiscuous()) {
    config.promiscuous = request.promiscuous();
  }
  if (request.has_allmulticast()) {
    config.allMulticast = request.allmulticast();
  }
  return config;
}

}  // namespace

void ControlService::handleAddWorker(const pb::AddWorkerRequest& request, pb::EmptyResponse*) {
  WorkerOptions options;
  options.spin = extensions_.spin;
  if (request.has_core()) {
    options.core = narrow<int>(request.core(), "core");
  }
  launchWorker(narrow<int>(request.wid(), "worker"), options);
}

void ControlService::handleDestroyWorker(const pb::DestroyWorkerRequest& request,
                                         pb::EmptyResponse*) {
  destroyWorker(narrow<int>(request.wid(), "worker"));
}

void ControlService::handleListWorkers(const pb::EmptyRequest&, pb::ListWorkersResponse* response) {
  for (const WorkerStatus& status : workerStatus()) {
    fillInfo(status, response->add_workers());
  }
}

void ControlService::handleAttachTask(const pb::AttachTaskRequest& request,
                                      pb::EmptyResponse* response) {
  passError(ModuleGraph::attachTask(request.module(), request.task_id(),
                                    narrow<int>(request.wid(), "worker"), request.rate()),
            response);
}

void ControlService::handleDetachTask(const pb::TaskRequest& request, pb::EmptyResponse* response) {
  passError(ModuleGraph::detachTask(request.module(), request.task_id()), response);
}

void ControlService::handleListTasks(const pb::EmptyRequest&, pb::ListTasksResponse* response) {
  for (const Module* module : ModuleGraph::modules()) {
    for (const auto& task : module->tasks()) {
      pb::TaskInfo* info = response->add_tasks();
      info->set_module(module->name());
      info->set_task_id(task->id());
      info->set_wid(task->worker());
      info->set_rate(task->ratePerSecond());
      info->set_runs(task->runs());
    }
  }
}

void ControlService::handleCreatePort(const pb::CreatePortRequest& request,
                                      pb::CreatePortResponse* response) {
  response->set_id(PortRegistry::global().create(portConfig(request))->id());
}

void ControlService::handleDestroyPort(const pb::NameRequest& request, pb::EmptyResponse*) {
  PortRegistry::global().destroy(request.name());
}

void ControlService::handleListPorts(const pb::EmptyRequest&, pb::ListPortsResponse* response) {
  for (const Port* port : PortRegistry::global().ports()) {
    fillInfo(*port, response->add_ports());
  }
}

void ControlService::handleGetPortStats(const pb::NameRequest& request,
                                        pb::PortStatsResponse* response) {
  fillInfo(PortRegistry::global().get(request.name()), response->mutable_port());
}

}  // namespace bess
