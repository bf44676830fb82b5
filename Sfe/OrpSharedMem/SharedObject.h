// A mapped POSIX shared memory object: made, reused or opened, and given back by its destructor.
//
// Threads    : one owner; the mapped bytes are shared as their users agree among themselves.
// Ownership  : move-only. The writing side holds an advisory lock on the object's file, so a second
//              process cannot write the same object; the lock ends with the process, however it
//              ends. The writing side removes the object's name when it is destroyed.
// Errors     : Orp::SystemException with the object's path and the reason.
// Invariants :
//   (1) an object never changes its size: another size means another object under the same name,
//       so that a mapping stays backed by memory as long as it lives.
//   (2) all pages of a writable object are allocated when it is opened: a full /dev/shm is an
//       error of the mount, never a signal at a later write.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>

namespace OrpSharedMem {

class SharedObject {
 public:
  // Says why an existing object cannot be used on, or nothing when it can.
  using Check = std::function<std::optional<std::string>(std::span<const std::byte>)>;

  // Opens `name` for writing. An object that is not of `bytes` bytes, is not a regular file of this
  // user or fails `check` is removed, made anew (all zero) and logged.
  // Errors: EBUSY when another process writes it, ENOSPC when /dev/shm is full.
  static SharedObject openForWriting(const std::string& name, size_t bytes, const Check& check);

  // Opens an existing object for reading, whatever its size is.
  static SharedObject openForReading(const std::string& name);

  SharedObject(SharedObject&& other) noexcept;
  SharedObject& operator=(SharedObject&&) = delete;
  ~SharedObject();

  const std::string& name() const { return name_; }
  bool created() const { return created_; }
  bool writable() const { return writable_; }
  std::span<std::byte> bytes() const { return {base_, size_}; }

  // Where the object shows in the file system.
  static std::string filePath(const std::string& name) { return "/dev/shm" + name; }

 private:
  SharedObject(std::string name, int fd, bool writable);
  void map(size_t bytes);
  void lockForWriting();
  bool isStillNamed() const;
  std::optional<std::string> whyUnusable(size_t bytes) const;
  static std::optional<SharedObject> create(const std::string& name, size_t bytes);
  static std::optional<SharedObject> reuse(const std::string& name,
                                           size_t bytes,
                                           const Check& check);

  std::string name_;
  int fd_;
  std::byte* base_ = nullptr;
  size_t size_ = 0;
  bool writable_;
  bool created_ = false;
  bool unlinkAtEnd_ = false;
};

}  // namespace OrpSharedMem
