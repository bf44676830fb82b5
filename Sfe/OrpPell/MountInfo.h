// What a mount asks for: the kind of shared memory and the collection that lives in it.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace OrpPell {

class MountInfo {
 public:
  // sharedMemType: 0 is a POSIX shared memory object, the only kind there is.
  explicit MountInfo(int sharedMemType) : sharedMemType_(sharedMemType) {}

  // Names the mount's collection and its capacity in records.
  void collectionInfoIs(std::string name, uint32_t entries) {
    collection_ = std::move(name);
    entries_ = entries;
  }

  int sharedMemType() const { return sharedMemType_; }
  const std::string& collection() const { return collection_; }
  uint32_t entries() const { return entries_; }

  friend bool operator==(const MountInfo&, const MountInfo&) = default;

 private:
  int sharedMemType_;
  std::string collection_;
  uint32_t entries_ = 0;
};

}  // namespace OrpPell
