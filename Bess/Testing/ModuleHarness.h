// Runs one module, or a few connected ones, on the test's own thread: offers packets, runs the
// pending queue, and returns what came out by gate.
//
//   ModuleHarness harness;
//   auto& mfib = harness.create<Mfib>("Mfib", arg);
//   harness.capture(mfib, {0, 1});
//   auto out = harness.offer(mfib, harness.packet(bytes));
//   EXPECT_EQ(out[1].size(), 1U);
//
// Threads    : the test's. Requires the packet library (a test program with EAL).
// Ownership  : the harness owns the modules that it created or was given; captured packets belong
// to
//              whoever took them. The default packet pool is made when there is none, and stays.
// Errors     : create() throws std::runtime_error with the answer's text.
// Invariants :
//   (1) offer() and runTask() act as worker wid() and leave no packet pending.
#pragma once

#include <google/protobuf/any.pb.h>
#include <google/protobuf/message.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Bess/Module.h"
#include "Bess/ModuleGraph.h"
#include "Bess/PacketPool.h"
#include "Bess/Worker.h"

namespace bess::testing {

// What came out of a module, by output gate.
class Output {
 public:
  std::vector<PacketPtr>& operator[](gate_idx_t gate) { return gates_[gate]; }
  size_t count(gate_idx_t gate) const {
    auto it = gates_.find(gate);
    return it == gates_.end() ? 0 : it->second.size();
  }
  size_t total() const {
    size_t n = 0;
    for (const auto& [gate, pkts] : gates_) {
      n += pkts.size();
    }
    return n;
  }
  bool empty() const { return total() == 0; }
  const std::map<gate_idx_t, std::vector<PacketPtr>>& gates() const { return gates_; }

 private:
  std::map<gate_idx_t, std::vector<PacketPtr>> gates_;
};

// Keeps every packet that arrives, by input gate.
class Capture final : public Module {
 public:
  Capture() { maxAllowedWorkers_ = MAX_WORKERS; }
  void ProcessBatch(Context* ctx, PacketBatch* batch) override {
    for (Packet* pkt : *batch) {
      output_[ctx->currentIgate].emplace_back(pkt);
    }
    batch->clear();
  }
  Output take() { return std::exchange(output_, Output()); }

 private:
  Output output_;
};

inline std::string contents(const Packet* pkt) {
  std::string bytes(pkt->totalLen(), '\0');
  const void* data = rte_pktmbuf_read(pkt->mbuf(), 0, pkt->totalLen(), bytes.data());
  if (data != nullptr && data != bytes.data()) {
    memcpy(bytes.data(), data, bytes.size());
  }
  return bytes;
}

class ModuleHarness {
 public:
  static constexpr unsigned kPoolCount = 4096;

  explicit ModuleHarness(int wid = 0) : task_(nullptr, nullptr) {
    if (PacketPool::defaultPool() == nullptr) {
      PacketPool::createDefaultPools(kPoolCount);
    }
    ctx_.wid = wid;
  }

  ~ModuleHarness() {
    for (const std::string& name : created_) {
      ModuleGraph::destroyModule(name);
    }
    for (const auto& module : owned_) {
      module->DeInit();
    }
  }
  ModuleHarness(const ModuleHarness&) = delete;
  ModuleHarness& operator=(const ModuleHarness&) = delete;

  // An instance of a registered class, by way of the graph.
  template <class M>
  M& create(const std::string& className,
            const google::protobuf::Message& arg,
            const std::string& name = "") {
    google::protobuf::Any any;
    any.PackFrom(arg);
    auto response = ModuleGraph::createModule(className, name, any);
    if (response.has_error()) {
      throw std::runtime_error(response.error().errmsg());
    }
    created_.push_back(response.name());
    return dynamic_cast<M&>(*ModuleGraph::findModule(response.name()));
  }

  // A module of the test's own.
  template <class M>
  M& own(std::unique_ptr<M> module) {
    M& result = *module;
    owned_.push_back(std::move(module));
    return result;
  }

  // Lets the packets that leave by these gates come back from offer(), runTask() and take().
  void capture(Module& module, std::initializer_list<gate_idx_t> gates) {
    for (gate_idx_t gate : gates) {
      module.connectGate(gate, &captureOf(module), gate);
    }
  }

  // A packet of the default pool with these bytes; null when the pool is dry or they do not fit.
  PacketPtr packet(std::span<const uint8_t> bytes) {
    PacketPtr pkt(PacketPool::defaultPool()->alloc());
    void* room = pkt == nullptr ? nullptr : pkt->append(static_cast<uint16_t>(bytes.size()));
    if (room == nullptr) {
      return nullptr;
    }
    memcpy(room, bytes.data(), bytes.size());
    return pkt;
  }
  PacketPtr packet(std::string_view bytes) {
    return packet(std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
  }

  // Hands the packets to the module in bursts of at most 32.
  Output offer(Module& module, std::vector<PacketPtr> pkts, gate_idx_t igate = 0) {
    for (size_t first = 0; first < pkts.size(); first += PacketBatch::kMaxBurst) {
      const size_t end = std::min(pkts.size(), first + PacketBatch::kMaxBurst);
      run([&] {
        PacketBatch* batch = task_.AllocPacketBatch();
        for (size_t i = first; i < end; i++) {
          batch->add(pkts[i].release());
        }
        ctx_.currentIgate = igate;
        module.ProcessBatch(&ctx_, batch);
        task_.runPending(&ctx_);
      });
    }
    return take(module);
  }
  Output offer(Module& module, PacketPtr pkt, gate_idx_t igate = 0) {
    std::vector<PacketPtr> pkts;
    pkts.push_back(std::move(pkt));
    return offer(module, std::move(pkts), igate);
  }

  // One scheduled run of a task that the module registered.
  std::pair<TaskResult, Output> runTask(Module& module, task_id_t id) {
    Task* task = module.tasks().at(id).get();
    TaskResult result;
    ctx_.task = task;
    run([&] { result = task->run(&ctx_); });
    ctx_.task = &task_;
    return {result, take(module)};
  }

  // What arrived since the last look at the captured gates of `module`.
  Output take(Module& module) { return captureOf(module).take(); }

  // Calls `fn` as worker wid(), with context() ready for a module's packet operations.
  void run(const std::function<void()>& fn) {
    ScopedWorkerIdentity identity(ctx_.wid);
    fn();
  }

  Context& context() { return ctx_; }
  Task& task() { return task_; }
  int wid() const { return ctx_.wid; }

 private:
  Capture& captureOf(Module& module) {
    auto& capture = captures_[&module];
    if (capture == nullptr) {
      capture = std::make_unique<Capture>();
    }
    return *capture;
  }

  Task task_;
  Context ctx_{.task = &task_};
  std::vector<std::string> created_;
  std::map<Module*, std::unique_ptr<Capture>> captures_;
  std::vector<std::unique_ptr<Module>> owned_;
};

}  // namespace bess::testing
