#include "Sfe/Multicast/CounterTableReader.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>

#include "Base/Orp/SystemException.h"
#include "Sfe/OrpSharedMem/EntityManager.h"

namespace Sfe::Multicast {

using OrpSharedMem::SharedObject;

CounterTableView::CounterTableView(const std::string& systemName,
                                   const std::string& path,
                                   const RecordShape& shape)
    : table_(openTableForReading(systemName, path, shape)),
      memory_(table_.object.bytes(), table_.header.shape, table_.header.capacity) {}

bool CounterTableView::writerAlive() const {
  const auto pid = static_cast<pid_t>(writerPid());
  return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

std::vector<uint32_t> CounterTableView::scan(
    const std::function<bool(std::span<const uint64_t>)>& take) const {
  std::array<uint64_t, kMaxRecordWords> buffer;
  const std::span record = std::span(buffer).first(memory_.shape().recordWords());
  std::vector<uint32_t> unreadable;
  auto isBusy = [&](uint32_t slot) {
    const SlotState state = memory_.read(slot, record);
    if (state == SlotState::kDamaged || (state == SlotState::kUsed && !take(record))) {
      unreadable.push_back(slot);
    }
    return state == SlotState::kBusy;
  };
  std::vector<uint32_t> busy;
  for (uint32_t slot = 0; slot < capacity(); ++slot) {
    if (isBusy(slot)) {
      busy.push_back(slot);
    }
  }
  for (unsigned pass = 1; pass < kMaxPasses && !busy.empty(); ++pass) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::erase_if(busy, [&](uint32_t slot) { return !isBusy(slot); });
  }
  unreadable.insert(unreadable.end(), busy.begin(), busy.end());
  return unreadable;
}

std::vector<TableInfo> listTables(const std::string& systemName) {
  const std::string prefix = OrpSharedMem::objectName(systemName, "/").substr(1);
  std::vector<TableInfo> tables;
  std::error_code ignored;
  for (const auto& file : std::filesystem::directory_iterator("/dev/shm", ignored)) {
    const std::string fileName = file.path().filename().string();
    if (fileName.compare(0, prefix.size(), prefix) != 0) {
      continue;
    }
    TableInfo info;
    info.objectName = "/" + fileName;
    try {
      const SharedObject object = SharedObject::openForReading(info.objectName);
      HeaderFault fault;
      if (!readHeader(object.bytes(), &info.header, &fault)) {
        info.fault = fault.text;
      }
    } catch (const Orp::SystemException& e) {
      if (e.errnoValue() == ENOENT) {
        continue;  // removed since the directory was read
      }
      info.fault = e.what();
    }
    tables.push_back(std::move(info));
  }
  std::sort(tables.begin(), tables.end(),
            [](const TableInfo& a, const TableInfo& b) { return a.objectName < b.objectName; });
  return tables;
}

}  // namespace Sfe::Multicast
