#include "Sfe/OrpSharedMem/SharedObject.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "Base/Orp/SystemException.h"

namespace OrpSharedMem {
namespace {

constexpr mode_t kMode = 0644;         // only its owner writes it
constexpr unsigned kOpenAttempts = 8;  // others may remove the object in between

[[noreturn]] void fail(int error, const std::string& name, const std::string& what) {
  throw Orp::SystemException(error,
                             "shared memory object " + SharedObject::filePath(name) + ": " + what);
}

}  // namespace

SharedObject::SharedObject(std::string name, int fd, bool writable)
    : name_(std::move(name)), fd_(fd), writable_(writable) {}

SharedObject::SharedObject(SharedObject&& other) noexcept
    : name_(std::move(other.name_)),
      fd_(std::exchange(other.fd_, -1)),
      base_(std::exchange(other.base_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      writable_(other.writable_),
      created_(other.created_),
      unlinkAtEnd_(std::exchange(other.unlinkAtEnd_, false)) {}

SharedObject::~SharedObject() {
  if (unlinkAtEnd_ && isStillNamed() && shm_unlink(name_.c_str()) != 0) {
    PLOG(ERROR) << "Cannot remove shared memory object " << filePath(name_);
  }
  if (base_ != nullptr) {
    munmap(base_, size_);
  }
  if (fd_ >= 0) {
    close(fd_);
  }
}

void SharedObject::map(size_t bytes) {
  if (bytes == 0) {
    return;
  }
  const int protection = writable_ ? PROT_READ | PROT_WRITE : PROT_READ;
  void* base = mmap(nullptr, bytes, protection, MAP_SHARED, fd_, 0);
  if (base == MAP_FAILED) {
    fail(errno, name_, "cannot be mapped");
  }
  base_ = static_cast<std::byte*>(base);
  size_ = bytes;
}

void SharedObject::lockForWriting() {
  if (flock(fd_, LOCK_EX | LOCK_NB) == 0) {
    return;
  }
  if (errno == EWOULDBLOCK) {
    fail(EBUSY, name_, "another process writes it (two daemons of one system name?)");
  }
  fail(errno, name_, "cannot be locked");
}

// Whether the name still leads to this object, and not to none or another one.
bool SharedObject::isStillNamed() const {
  struct stat mine;
  struct stat named;
  return fstat(fd_, &mine) == 0 && stat(filePath(name_).c_str(), &named) == 0 &&
         mine.st_dev == named.st_dev && mine.st_ino == named.st_ino;
}

// Nothing when the file itself can be used as `bytes` bytes of this user's memory.
std::optional<std::string> SharedObject::whyUnusable(size_t bytes) const {
  struct stat info;
  if (fstat(fd_, &info) != 0) {
    return "its state cannot be read";
  }
  if (!S_ISREG(info.st_mode) || info.st_uid != geteuid()) {
    return "it is not a file of this user";
  }
  if (static_cast<size_t>(info.st_size) != bytes) {
    return "it has " + std::to_string(info.st_size) + " bytes instead of " + std::to_string(bytes);
  }
  return std::nullopt;
}

std::optional<SharedObject> SharedObject::create(const std::string& name, size_t bytes) {
  const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kMode);
  if (fd < 0) {
    if (errno == EEXIST) {
      return std::nullopt;
    }
    fail(errno, name, "cannot be made");
  }
  SharedObject object(name, fd, true);
  object.lockForWriting();
  object.unlinkAtEnd_ = true;
  if (const int error = posix_fallocate(fd, 0, static_cast<off_t>(bytes)); error != 0) {
    fail(error, name, "no room for " + std::to_string(bytes) + " bytes");
  }
  object.map(bytes);
  object.created_ = true;
  return object;
}

// Returns: nothing when there is no such object any more, or when it was removed as unusable.
std::optional<SharedObject> SharedObject::reuse(const std::string& name,
                                                size_t bytes,
                                                const Check& check) {
  const int fd = shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
  if (fd < 0) {
    if (errno == ENOENT) {
      return std::nullopt;
    }
    fail(errno, name, "exists and cannot be opened for writing");
  }
  SharedObject object(name, fd, true);
  object.lockForWriting();
  if (!object.isStillNamed()) {
    return std::nullopt;
  }
  std::optional<std::string> reason = object.whyUnusable(bytes);
  if (!reason) {
    if (const int error = posix_fallocate(fd, 0, static_cast<off_t>(bytes)); error != 0) {
      fail(error, name, "no room for " + std::to_string(bytes) + " bytes");
    }
    object.map(bytes);
    reason = check(object.bytes());
  }
  if (!reason) {
    object.unlinkAtEnd_ = true;
    return object;
  }
  LOG(WARNING) << "Shared memory object " << filePath(name) << " is made anew: " << *reason;
  if (shm_unlink(name.c_str()) != 0) {
    fail(errno, name, "cannot be used (" + *reason + ") and cannot be removed");
  }
  return std::nullopt;
}

SharedObject SharedObject::openForWriting(const std::string& name,
                                          size_t bytes,
                                          const Check& check) {
  for (unsigned attempt = 0; attempt < kOpenAttempts; ++attempt) {
    if (std::optional<SharedObject> object = reuse(name, bytes, check)) {
      return std::move(*object);
    }
    if (std::optional<SharedObject> object = create(name, bytes)) {
      return std::move(*object);
    }
  }
  fail(EBUSY, name, "others keep making and removing it");
}

SharedObject SharedObject::openForReading(const std::string& name) {
  const int fd = shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0 && errno == ENOENT) {
    fail(ENOENT, name,
         "there is none: the daemon of this system name does not run or does not have this table "
         "(the environment variable SYSNAME names the system)");
  }
  if (fd < 0) {
    fail(errno, name, "cannot be opened for reading");
  }
  SharedObject object(name, fd, false);
  struct stat info;
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    fail(EINVAL, name, "is not a shared memory object");
  }
  object.map(static_cast<size_t>(info.st_size));
  return object;
}

}  // namespace OrpSharedMem
