// What the tests of the counter tables share: a system name of their own, an RCU thread, tables of
// any capacity, and a way to damage the shared memory behind them.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>
#include <urcu-qsbr.h>

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "Base/Orp/Ptr.h"
#include "Base/RcuAnnotate.h"
#include "Sfe/Multicast/IntfCounterTable.h"
#include "Sfe/Multicast/MrouteCounterTable.h"
#include "Sfe/OrpSharedMem/EntityManager.h"

namespace Sfe::Multicast::Testing {

// The calling thread is a registered QSBR thread while this lives.
class RcuThread {
 public:
  RcuThread() { urcu_qsbr_register_thread(); }
  ~RcuThread() {
    SFE_RCU_QUIESCENT();
    urcu_qsbr_unregister_thread();
  }
  RcuThread(const RcuThread&) = delete;
  RcuThread& operator=(const RcuThread&) = delete;

  void quiescent() const {
    SFE_RCU_QUIESCENT();
    urcu_qsbr_quiescent_state();
  }
};

// A record whose six counters are all `value`: a mixture of two writes shows.
inline IntfCounter uniformRecord(Nynet::IntfId id, uint64_t value) {
  IntfCounter record(id);
  record.pktsInInc(value);
  record.pktsOutInc(value);
  record.bytesInInc(value);
  record.bytesOutInc(value);
  record.pktsQueuedInc(value);
  record.pktsDroppedInc(value);
  return record;
}

inline bool isUniform(const IntfCounter& record) {
  return record == uniformRecord(record.intfId(), record.pktsIn());
}

inline Nynet::IntfId intfId(uint64_t n) {
  return Nynet::IntfId(0x0500000000000000 + n);
}

inline Routing::Multicast::Fib::IpGenRouteKey routeKey(uint32_t n) {
  using Nynet::IpGenPrefix;
  const uint8_t source[4] = {10, 0, 0, 1};
  const uint8_t group[4] = {239, static_cast<uint8_t>(n >> 16), static_cast<uint8_t>(n >> 8),
                            static_cast<uint8_t>(n)};
  const auto prefix = [](const uint8_t* bytes) {
    return IpGenPrefix(Nynet::IpGenAddr(Nynet::AddressFamily::kIpv4, bytes), 32);
  };
  return {prefix(source), prefix(group)};
}

template <class Table>
constexpr const char* collectionOf() {
  return std::is_same_v<Table, IntfCounterTable> ? IntfCounter::kCollection
                                                 : MrouteCounter::kCollection;
}
template <class Table>
constexpr const char* typeNameOf() {
  return std::is_same_v<Table, IntfCounterTable> ? IntfCounter::kTypeName
                                                 : MrouteCounter::kTypeName;
}

template <class Table>
std::string defaultPath() {
  return Table::mountPath(Nynet::AddressFamily::kIpv4, L3::VrfName::defaultVrf());
}

// Mounts a table and returns the handle on it.
template <class Table>
Orp::Ptr<Table> mountTable(const std::string& systemName,
                           uint32_t capacity,
                           bool readOnly = false,
                           const std::string& path = defaultPath<Table>()) {
  const auto manager = OrpSharedMem::getEntityManager(systemName, readOnly);
  OrpPell::MountInfo info(0);
  info.collectionInfoIs(collectionOf<Table>(), capacity);
  manager->doMount(path, typeNameOf<Table>(), info);
  return Orp::ptrCast<Table>(manager->getEntity(path));
}

// The bytes of a table's object as somebody outside of all rules sees them.
class RawObject {
 public:
  RawObject(const std::string& systemName, const std::string& path)
      : file_(OrpSharedMem::SharedObject::filePath(OrpSharedMem::objectName(systemName, path))),
        size_(std::filesystem::file_size(file_)) {
    const int fd = open(file_.c_str(), O_RDWR | O_CLOEXEC);
    void* base = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (base == MAP_FAILED) {
      throw std::runtime_error(file_ + " cannot be mapped");
    }
    bytes_ = static_cast<uint8_t*>(base);
  }
  ~RawObject() { munmap(bytes_, size_); }
  RawObject(const RawObject&) = delete;
  RawObject& operator=(const RawObject&) = delete;

  void flip(size_t at, uint8_t mask) {
    std::atomic_ref<uint8_t> byte(bytes_[at]);
    byte.store(byte.load() ^ mask);
  }
  std::span<std::byte> bytes() { return {reinterpret_cast<std::byte*>(bytes_), size_}; }

 private:
  std::string file_;
  size_t size_;
  uint8_t* bytes_;
};

// Gives every test a system name of its own, and sees that it leaves nothing in /dev/shm.
class TableTest : public ::testing::Test {
 protected:
  ~TableTest() override { EXPECT_EQ(objects(), std::vector<std::string>()); }

  const std::string systemName_ = "test" + std::to_string(getpid()) + "-" +
                                  ::testing::UnitTest::GetInstance()->current_test_info()->name();
  const RcuThread rcu_;

  // The names in /dev/shm that belong to the test's system name.
  std::vector<std::string> objects() const {
    std::vector<std::string> found;
    for (const auto& file : std::filesystem::directory_iterator("/dev/shm")) {
      const std::string name = file.path().filename().string();
      if (name.rfind("sfe." + systemName_ + ".", 0) == 0) {
        found.push_back(name);
      }
    }
    return found;
  }
};

}  // namespace Sfe::Multicast::Testing
