// Reads a counter table of another process, while it is written or after its writer is gone.
//
// Byte layout: Sfe/Multicast/TableLayout.h.
// Threads    : a reader object may be used by any number of threads; it needs no RCU.
// Ownership  : keeps the object mapped, also after its writer has removed it.
// Errors     : the constructor throws Orp::SystemException (errno and reason: no such table, no
//              permission, the writer is just making it), Bindle::CorruptionDetectedException (the
//              header is damaged) or std::runtime_error (another layout). snapshot() throws nothing
//              but std::bad_alloc; what it cannot read it reports.
// Cost       : snapshot() reads every slot once; slots that are being written are tried again in
//              at most kMaxPasses passes, a millisecond apart, however many they are.
// Invariants :
//   (1) a record is as one write left it: its counters belong together and to its key.
//   (2) a writer that died or stopped inside a record costs a bounded time and that record only.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "Sfe/Multicast/IntfCounter.h"
#include "Sfe/Multicast/MrouteCounter.h"
#include "Sfe/Multicast/SlotMemory.h"
#include "Sfe/Multicast/TableLayout.h"
#include "Sfe/Multicast/TableObject.h"

namespace Sfe::Multicast {

// The reader without the type of its records.
class CounterTableView {
 public:
  static constexpr unsigned kMaxPasses = 20;

  // Opens the table of a system name and mount path; its records must be of `shape`.
  CounterTableView(const std::string& systemName,
                   const std::string& path,
                   const RecordShape& shape);

  uint32_t capacity() const { return table_.header.capacity; }
  uint32_t generation() const { return table_.header.generation; }
  uint32_t writerPid() const { return table_.header.writerPid; }

  // Whether the process that wrote the table still lives. (A process id can be given again.)
  bool writerAlive() const;

  // Calls `take` with every record; it returns false for words that are no record.
  // Returns: the slots that could not be read, in no order.
  std::vector<uint32_t> scan(const std::function<bool(std::span<const uint64_t>)>& take) const;

 private:
  TableObject table_;
  SlotMemory memory_;
};

template <class Record>
class CounterTableReader : public CounterTableView {
 public:
  CounterTableReader(const std::string& systemName, const std::string& path)
      : CounterTableView(systemName, path, Record::kShape) {}

  // Returns: all records that can be read; the numbers of the other slots go to `unreadable`.
  std::vector<Record> snapshot(std::vector<uint32_t>* unreadable = nullptr) const {
    std::vector<Record> records;
    auto take = [&records](std::span<const uint64_t> words) {
      Record record;
      if (!Record::fromWords(words.template first<Record::kShape.recordWords()>(), &record)) {
        return false;
      }
      records.push_back(record);
      return true;
    };
    std::vector<uint32_t> missed = scan(take);
    if (unreadable != nullptr) {
      *unreadable = std::move(missed);
    }
    return records;
  }
};

using IntfCounterReader = CounterTableReader<IntfCounter>;
using MrouteCounterReader = CounterTableReader<MrouteCounter>;

// One table that exists in /dev/shm.
struct TableInfo {
  std::string objectName;  // as shm_open takes it
  std::string fault;       // empty, or why its header cannot be used (the rest is then unset)
  TableHeader header;
};

// Returns: the tables of a system name, by object name.
std::vector<TableInfo> listTables(const std::string& systemName);

}  // namespace Sfe::Multicast
