// The other process of the counter table tests.
//
//   table_tool read SYSNAME PATH    snapshots until 50 of them showed records; exit 1 on a mixture
//   table_tool write SYSNAME        writes records in a loop until it is killed
//   table_tool die SYSNAME          writes two records and stays inside the second one
// "write" and "die" print a line when they are under way.
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>

#include "Sfe/Multicast/CounterTableReader.h"
#include "Sfe/Multicast/TableTesting.h"

namespace {

using namespace Sfe::Multicast;
using namespace Sfe::Multicast::Testing;

constexpr uint32_t kCapacity = 64;
constexpr uint64_t kKeys = 8;

int read(const std::string& systemName, const std::string& path) {
  const IntfCounterReader reader(systemName, path);
  for (int seen = 0; seen < 50;) {
    const std::vector<IntfCounter> records = reader.snapshot();
    for (const IntfCounter& record : records) {
      if (!isUniform(record)) {
        return 1;
      }
    }
    seen += records.empty() ? 0 : 1;
  }
  return 0;
}

void ready() {
  std::puts("ready");
  std::fflush(stdout);
}

[[noreturn]] void write(const std::string& systemName) {
  const RcuThread rcu;
  const auto table = mountTable<IntfCounterTable>(systemName, kCapacity);
  for (uint64_t n = 0;; ++n) {
    table->intfIs(uniformRecord(intfId(n % kKeys), n));
    if (n == kKeys) {
      ready();
    }
    rcu.quiescent();
  }
}

[[noreturn]] void die(const std::string& systemName) {
  const RcuThread rcu;
  const auto table = mountTable<IntfCounterTable>(systemName, kCapacity);
  table->intfIs(uniformRecord(intfId(1), 1));
  table->intfIs(uniformRecord(intfId(2), 2));
  RawObject raw(systemName, table->path());
  SlotMemory memory(raw.bytes(), IntfCounter::kShape, kCapacity);
  std::array<uint64_t, IntfCounter::kShape.recordWords()> words;
  for (uint32_t slot = 0; slot < kCapacity; ++slot) {
    if (memory.read(slot, words) == SlotState::kUsed && words[0] == intfId(2).value()) {
      memory.beginWrite(slot);
      memory.storeWord(slot, 1, 3);
    }
  }
  ready();
  for (;;) {
    pause();
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 2 ? argv[1] : "";
  if (mode == "read" && argc == 4) {
    return read(argv[2], argv[3]);
  }
  if (mode == "write") {
    write(argv[2]);
  }
  if (mode == "die") {
    die(argv[2]);
  }
  return 2;
}
