#include "bessd/FrameworkMetrics.h"

#include <dirent.h>
#include <rte_lcore.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "Base/RcuCallbacks.h"
#include "Bess/BatchSizes.h"
#include "Bess/Eal.h"
#include "Bess/Module.h"
#include "Bess/ModuleBuilder.h"
#include "Bess/ModuleGraph.h"
#include "Bess/PacketPool.h"
#include "Bess/PortRegistry.h"
#include "Bess/Worker.h"
#include "bessd/Revision.h"

namespace Bessd {
namespace {

using Family = MetricFamilies::Family;
using Labels = MetricFamilies::Labels;

double seconds(uint64_t nanoseconds) {
  return static_cast<double>(nanoseconds) * 1e-9;
}

double number(uint64_t count) {
  return static_cast<double>(count);
}

void addDaemon(MetricFamilies* families) {
  families->gauge(
      {"bessd_build_info", "Always 1; the labels say what runs"},
      {{"version", SFE_VERSION}, {"revision", revision()}, {"packet_library", bess::ealVersion()}},
      1);
  families->gauge({"bessd_workers_paused", "1 while the workers stand still for a change"}, {},
                  workersPaused() ? 1 : 0);
}

// Memory that tables have given up and that some reader may still look at.
void addRcu(MetricFamilies* families) {
  const RcuCallbacks::Counts counts = RcuCallbacks::counts();
  families->counter({"bessd_rcu_callbacks_queued_total", "Frees put off until readers are past"},
                    {}, number(counts.queued));
  families->counter({"bessd_rcu_callbacks_run_total", "Frees put off that are done"}, {},
                    number(counts.run));
  families->gauge({"bessd_rcu_callbacks_waiting", "Frees put off that wait for readers"}, {},
                  number(counts.waiting()));
}

void addBatches(int wid, const Labels& labels, MetricFamilies* families) {
  const bess::BatchSizes::Counts counts = bess::BatchSizes::of(wid);
  std::vector<std::pair<double, uint64_t>> buckets;
  for (size_t i = 0; i < counts.batches.size(); ++i) {
    buckets.emplace_back(number(uint64_t{1} << i), counts.batches[i]);
  }
  families->histogram({"bessd_worker_batch_packets", "Packets in the batches handed to modules"},
                      labels, buckets, number(counts.packets));
}

void addWorkers(MetricFamilies* families) {
  for (const WorkerStatus& worker : workerStatus()) {
    const Labels labels = {{"worker", std::to_string(worker.wid)}};
    const WorkerStats& stats = worker.stats;
    families->counter({"bessd_worker_busy_seconds_total", "Time in rounds that found work"}, labels,
                      seconds(stats.busyNs));
    families->counter({"bessd_worker_idle_seconds_total", "Time without work, asleep or paused"},
                      labels, seconds(stats.idleNs));
    families->counter({"bessd_worker_rounds_total", "Rounds over the worker's tasks"}, labels,
                      number(stats.rounds));
    families->counter({"bessd_worker_idle_rounds_total", "Rounds that found no work"}, labels,
                      number(stats.idleRounds));
    families->counter({"bessd_worker_packets_total", "Packets that tasks took in"}, labels,
                      number(stats.packets));
    families->counter({"bessd_worker_bytes_total", "Bytes of these packets on the wire"}, labels,
                      number(stats.bits / 8));
    families->counter(
        {"bessd_worker_dead_end_packets_total", "Packets that left by a gate that leads nowhere"},
        labels, number(stats.silentDrops));
    families->gauge({"bessd_worker_tasks", "Tasks that are attached to the worker"}, labels,
                    number(worker.tasks));
    addBatches(worker.wid, labels, families);
  }
}

void addPools(MetricFamilies* families) {
  for (unsigned i = 0; i < rte_socket_count(); ++i) {
    const int node = rte_socket_id_by_idx(i);
    const bess::PacketPool* pool = bess::PacketPool::defaultPool(node);
    // A node without a pool of its own answers with another node's.
    if (pool != nullptr && pool->socket() == node) {
      const Labels labels = {{"node", std::to_string(node)}};
      families->gauge({"bessd_packet_buffers", "Packet buffers of the memory node"}, labels,
                      number(pool->capacity()));
      families->gauge({"bessd_packet_buffers_in_use", "Packet buffers that hold a packet"}, labels,
                      number(pool->inUse()));
    }
  }
}

void addPort(const bess::Port& port, MetricFamilies* families) {
  const Labels labels = {{"port", port.name()}};
  const bess::PortCounters counters = port.counters();
  const bess::PortStatus status = port.status();
  const auto count = [&](const Family& family, uint64_t value) {
    families->counter(family, labels, number(value));
  };
  families->gauge({"bessd_port_up", "1 while the port has a link"}, labels, status.linkUp ? 1 : 0);
  count({"bessd_port_receive_packets_total", "Packets received"}, counters.rxPackets);
  count({"bessd_port_receive_bytes_total", "Bytes received"}, counters.rxBytes);
  count({"bessd_port_receive_missed_packets_total", "Packets the device had no room for"},
        counters.rxMissed);
  count({"bessd_port_receive_errors_total", "Packets received in error"}, counters.rxErrors);
  count({"bessd_port_receive_no_buffer_packets_total", "Packets lost for want of a packet buffer"},
        counters.rxNoBuffer);
  count({"bessd_port_transmit_packets_total", "Packets sent"}, counters.txPackets);
  count({"bessd_port_transmit_bytes_total", "Bytes sent"}, counters.txBytes);
  count({"bessd_port_transmit_errors_total", "Packets the device failed to send"},
        counters.txErrors);
  count({"bessd_port_transmit_dropped_packets_total", "Packets the device did not take"},
        counters.txDropped);
}

void addModule(const Module& module, MetricFamilies* families) {
  const Labels labels = {{"module", module.name()}, {"class", module.moduleBuilder()->className()}};
  families->counter({"bessd_module_dead_end_packets_total",
                     "Packets that left the module by a gate that leads nowhere"},
                    labels, number(module.deadEnds()));
  families->counter({"bessd_module_dropped_packets_total", "Packets that the module dropped"},
                    labels, number(module.drops()));
  for (const auto& task : module.tasks()) {
    families->counter({"bessd_task_runs_total", "How often the task ran"},
                      {{"module", module.name()}, {"task", std::to_string(task->id())}},
                      number(task->runs()));
  }
}

void addEvents(const EventCounters& counters, MetricFamilies* families) {
  bess::pb::CountersResponse all;
  counters.fill(&all);
  for (const auto& counter : all.counters()) {
    for (const auto& value : counter.values()) {
      families->counter({"bessd_events_total", "The event counters of the workers"},
                        {{"event", counter.name()}, {"worker", std::to_string(value.wid())}},
                        number(value.value()));
    }
  }
}

double openFiles() {
  double count = 0;
  if (DIR* directory = opendir("/proc/self/fd"); directory != nullptr) {
    while (const dirent* entry = readdir(directory)) {  // NOLINT(concurrency-mt-unsafe): our own
      count += entry->d_name[0] == '.' ? 0 : 1;
    }
    closedir(directory);
    count -= 1;  // the directory itself
  }
  return count;
}

// The names that metrics of processes have everywhere.
void addProcess(MetricFamilies* families) {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto duration = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  families->counter({"process_cpu_seconds_total", "Processor time of the daemon"}, {},
                    duration(usage.ru_utime) + duration(usage.ru_stime));
  uint64_t pages = 0;
  uint64_t resident = 0;
  if (std::ifstream("/proc/self/statm") >> pages >> resident) {
    families->gauge({"process_resident_memory_bytes", "Memory of the daemon that is in use"}, {},
                    number(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)));
  }
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  families->gauge({"process_open_fds", "Open files"}, {}, openFiles());
  families->gauge({"process_max_fds", "How many files may be open"}, {}, number(limit.rlim_cur));
}

}  // namespace

void addFrameworkMetrics(const EventCounters& counters, MetricFamilies* families) {
  addDaemon(families);
  addRcu(families);
  addWorkers(families);
  addPools(families);
  for (const bess::Port* port : bess::PortRegistry::global().ports()) {
    addPort(*port, families);
  }
  for (const Module* module : ModuleGraph::modules()) {
    addModule(*module, families);
  }
  addEvents(counters, families);
  addProcess(families);
}

}  // namespace Bessd
