#include "Sfe/Counters/Counters.h"

#include <glog/logging.h>

#include <map>
#include <memory>
#include <mutex>

namespace SfeModules {
namespace {

using Row = std::array<std::atomic<uint64_t>, kMaxCounters>;

// Lives until the process ends, and so do the rows.
struct Store {
  std::mutex mutex;  // guards what follows
  std::array<std::unique_ptr<Row>, kMaxCounterRows> rows;
  std::map<std::string, uint32_t> ids;
  bool exhausted = false;
};
Store& store() {
  static auto* const theStore = new Store;
  return *theStore;
}

}  // namespace

constinit std::array<std::atomic<std::atomic<uint64_t>*>, kMaxCounterRows> bessCounterDb{};

void createCounterRow(int wid) {
  CHECK(wid >= 0 && static_cast<unsigned>(wid) < kMaxCounterRows) << "worker id " << wid;
  Store& all = store();
  const std::lock_guard lock(all.mutex);
  std::unique_ptr<Row>& row = all.rows[static_cast<unsigned>(wid)];
  if (bessCounterRow(wid) != nullptr) {
    return;
  }
  if (row == nullptr) {
    row = std::make_unique<Row>();
  }
  for (std::atomic<uint64_t>& counter : *row) {
    counter.store(0, std::memory_order_relaxed);
  }
  bessCounterDb[static_cast<unsigned>(wid)].store(row->data(), std::memory_order_release);
}

void destroyCounterRow(int wid) {
  if (wid >= 0 && static_cast<unsigned>(wid) < kMaxCounterRows) {
    const std::lock_guard lock(store().mutex);
    bessCounterDb[static_cast<unsigned>(wid)].store(nullptr, std::memory_order_release);
  }
}

uint32_t counterId(const std::string& name) {
  Store& all = store();
  const std::lock_guard lock(all.mutex);
  if (const auto found = all.ids.find(name); found != all.ids.end()) {
    return found->second;
  }
  // Id 0 is nobody's: it is what a module that was never given its ids counts into.
  const auto id = static_cast<uint32_t>(all.ids.size() + 1);
  if (id >= kMaxCounters) {
    LOG_IF(ERROR, !all.exhausted) << "All " << kMaxCounters << " counter ids are given away; "
                                  << name << " is not counted";
    all.exhausted = true;
    return kMaxCounters;
  }
  all.ids.emplace(name, id);
  return id;
}

}  // namespace SfeModules
