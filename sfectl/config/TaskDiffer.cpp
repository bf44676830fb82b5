#include "sfectl/config/TaskDiffer.h"

#include <algorithm>

#include "sfectl/Client.h"
#include "sfectl/Errors.h"

namespace Sfectl {
namespace {

using Stub = Client::Stub;

std::string workerText(int worker) {
  return "worker " + std::to_string(worker);
}

}  // namespace

TaskDiffer::TaskDiffer(const Config& config, DifferSteps& steps) : config_(config), steps_(steps) {
  if (config.workers.has_value()) {
    for (const WorkerConfig& worker : *config.workers) {
      load_[static_cast<int>(worker.id)] = 0;
    }
  } else {
    for (const auto& [id, core] : steps.now.workers) {
      load_[static_cast<int>(id)] = 0;
    }
    if (load_.empty() && !config.vrfs.empty()) {
      load_[0] = 0;
    }
  }
  for (const auto& [id, task] : steps.now.tasks) {
    if (load_.contains(task.worker)) {
      ++load_[task.worker];
    }
  }
}

bool TaskDiffer::isWanted(int worker) const {
  return load_.contains(worker);
}

void TaskDiffer::addWorkers() {
  for (const auto& [id, tasks] : load_) {
    std::optional<uint32_t> core;
    if (config_.workers.has_value()) {
      for (const WorkerConfig& worker : *config_.workers) {
        core = static_cast<int>(worker.id) == id ? worker.core : core;
      }
    }
    bess::pb::AddWorkerRequest request;
    request.set_wid(static_cast<uint32_t>(id));
    const auto running = steps_.now.workers.find(request.wid());
    if (running != steps_.now.workers.end()) {
      if (core.has_value() && running->second != static_cast<int>(*core)) {
        throw RuntimeError(workerText(id) + " runs on " +
                           (running->second < 0 ? "no core of its own"
                                                : "core " + std::to_string(running->second)) +
                           " and the file says core " + std::to_string(*core) +
                           "; a worker cannot be moved while it has tasks: give the core to a "
                           "worker with another id, or start the daemon again");
      }
      continue;
    }
    if (core.has_value()) {
      request.set_core(*core);
    }
    steps_.add(
        Change::kAdd, "worker", std::to_string(id),
        core.has_value() ? "core " + std::to_string(*core) : "",
        [request](Executor& executor) { executor.client().call(&Stub::AddWorker, request); });
  }
}

// Each worker that forwards needs a transmit queue of every port.
size_t TaskDiffer::mostWorkers() const {
  size_t most = load_.size();
  for (const PortConfig& port : config_.ports) {
    const auto running = steps_.now.ports.find(port.name);
    const size_t queues = running != steps_.now.ports.end()
                              ? running->second.txq
                              : port.txq.value_or(static_cast<uint32_t>(load_.size()));
    most = std::min(most, queues);
  }
  return most;
}

int TaskDiffer::leastLoaded() const {
  const auto busy = static_cast<size_t>(std::count_if(
      load_.begin(), load_.end(), [](const auto& worker) { return worker.second > 0; }));
  const bool idleMayStart = busy < mostWorkers();
  int least = kNoWorker;
  for (const auto& [worker, tasks] : load_) {
    if ((tasks > 0 || idleMayStart) && (least == kNoWorker || tasks < load_.at(least))) {
      least = worker;
    }
  }
  return least;
}

void TaskDiffer::attach(const Wanted& wanted) {
  const auto found = wanted.id.has_value() ? steps_.now.tasks.find({wanted.module, *wanted.id})
                                           : steps_.now.tasks.end();
  const bool exists = found != steps_.now.tasks.end();
  const RunningTask now = exists ? found->second : RunningTask{};
  int worker = isWanted(now.worker) ? now.worker : kNoWorker;
  if (wanted.worker.has_value()) {
    worker = *wanted.worker;
  } else if (worker == kNoWorker) {
    worker = leastLoaded();
  }
  const uint64_t rate = wanted.rate.value_or(now.rate);
  if (exists && worker == now.worker && (rate == now.rate || worker == kNoWorker)) {
    return;
  }
  if (worker != now.worker) {
    if (isWanted(worker)) {
      ++load_[worker];
    }
    if (isWanted(now.worker)) {
      --load_[now.worker];
    }
  }
  bess::pb::AttachTaskRequest request;
  request.set_module(wanted.module);
  request.set_task_id(wanted.id.value_or(0));
  request.set_wid(static_cast<uint32_t>(worker));
  if (rate != 0) {
    request.set_rate(rate);
  }
  const bool detach = worker == kNoWorker;
  const std::string detail =
      (detach ? "no worker" : workerText(worker)) +
      (rate == 0 || detach ? "" : ", " + std::to_string(rate) + " runs a second");
  steps_.add(exists && now.worker != kNoWorker ? Change::kChange : Change::kAdd, "task",
             wanted.name, detail,
             [request, detach, registration = wanted.id.has_value() ? "" : wanted.registration](
                 Executor& executor) mutable {
               if (!registration.empty()) {
                 const auto answer = executor.client().command(request.module(), registration,
                                                               sfe::pb::MfibTaskIdArg());
                 sfe::pb::MfibTaskIdArg id;
                 if (!answer.data().UnpackTo(&id)) {
                   throw RuntimeError("the answer of " + registration + " is not a task's number");
                 }
                 request.set_task_id(id.task_id());
               }
               if (!detach) {
                 executor.client().call(&Stub::AttachTask, request);
                 return;
               }
               bess::pb::TaskRequest task;
               task.set_module(request.module());
               task.set_task_id(request.task_id());
               if (registration.empty()) {
                 executor.client().call(&Stub::DetachTask, task);
               }
             });
}

void TaskDiffer::attachReaders() {
  const Roles roles(steps_.now);
  for (const PortConfig& port : config_.ports) {
    const std::string module = roles.reader(port.name);
    const auto running = steps_.now.ports.find(port.name);
    const uint32_t queues =
        running != steps_.now.ports.end() ? running->second.rxq : port.rxq.value_or(1);
    for (uint32_t queue = 0; queue < queues; ++queue) {
      Wanted wanted;
      wanted.module = module;
      wanted.name = module + (queues == 1 ? "" : ", queue " + std::to_string(queue));
      wanted.id = queue;
      if (port.workers.has_value() && !port.workers->empty()) {
        wanted.worker = (*port.workers)[port.workers->size() == 1 ? 0 : queue];
      }
      attach(wanted);
    }
  }
}

void TaskDiffer::attachInstance(const VrfConfig& vrf, Family family, const InstanceConfig& wanted) {
  const std::string module = Roles(steps_.now).instance(vrf.name, family);
  const RunningInstance& now = steps_.now.instances[module];
  attach({module, module + ", held packets", now.resolveTask, "regMfibTasks", wanted.worker,
          std::nullopt});
  attach({module, module + ", clean-up", now.cleanupTask, "regCleanupTask", wanted.worker,
          wanted.cleanupRate});
}

void TaskDiffer::attach() {
  for (const VrfConfig& vrf : config_.vrfs) {
    for (const auto& [family, wanted] : vrf.families) {
      attachInstance(vrf, family, wanted);
    }
  }
  // Packets come in last.
  attachReaders();
}

void TaskDiffer::removeWorkers() {
  for (const auto& [id, core] : steps_.now.workers) {
    const int worker = static_cast<int>(id);
    const bool busy =
        std::any_of(steps_.now.tasks.begin(), steps_.now.tasks.end(), [&](const auto& task) {
          // The tasks of the graph have gone to other workers by now.
          return task.second.worker == worker && !isMoved(task.first.first);
        });
    if (isWanted(worker) || busy) {
      continue;
    }
    bess::pb::DestroyWorkerRequest request;
    request.set_wid(id);
    steps_.add(Change::kRemove, "worker", std::to_string(id), "", [request](Executor& executor) {
      executor.client().call(&Stub::DestroyWorker, request);
    });
  }
}

// A module whose tasks attach() has seen.
bool TaskDiffer::isMoved(const std::string& module) const {
  const Roles roles(steps_.now);
  const auto what = roles.served(module);
  for (const VrfConfig& vrf : config_.vrfs) {
    if (what.has_value() && what->first == vrf.name && vrf.families.contains(what->second)) {
      return module == roles.instance(what->first, what->second);
    }
  }
  return std::any_of(config_.ports.begin(), config_.ports.end(),
                     [&](const PortConfig& port) { return module == roles.reader(port.name); });
}

}  // namespace Sfectl
