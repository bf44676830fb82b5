// What the tests of the notify socket need of the system: namespaces, and an ear that is not ours.
//
// KernelEar knows the kernel's headers alone: what it reads is what any reader of the kernel's
// reports would. It includes nothing of this system, so that a mistake in an own constant shows.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace NotifyTest {

using Bytes = std::vector<uint8_t>;

// One datagram as the kernel's structs and attributes lay it out.
struct Heard {
  uint16_t type = 0;
  uint16_t flags = 0;
  uint8_t family = 0;
  uint32_t nlmsgLen = 0;
  size_t datagramBytes = 0;
  std::vector<uint16_t> order;       // attribute types as they came
  std::map<uint16_t, Bytes> values;  // by attribute type

  uint32_t u32(uint16_t attribute) const;
  uint64_t u64(uint16_t attribute) const;
  std::string address(uint16_t attribute) const;  // as inet_ntop prints it
};

// Listens on rtnetlink groups in the namespace of the thread that makes it.
class KernelEar {
 public:
  explicit KernelEar(std::vector<unsigned> groups);
  KernelEar(const KernelEar&) = delete;
  KernelEar& operator=(const KernelEar&) = delete;
  ~KernelEar() { close(fd_); }

  // What was sent before is there already: delivery happens inside the sender's system call.
  // Returns: nothing when nothing waits.
  std::optional<Heard> next();
  std::vector<Heard> all();

 private:
  int fd_;
  Bytes buffer_;
};

// Moves the calling thread, and the threads that it will start, into a fresh network namespace:
// nobody else's messages are heard there. Returns: false, having said why, without the right to.
bool enterFreshNamespace();
// Which namespace the calling thread is in.
std::string currentNamespace();

// A network namespace with a name, for as long as the object lives.
class NamedNamespace {
 public:
  NamedNamespace();
  NamedNamespace(const NamedNamespace&) = delete;
  NamedNamespace& operator=(const NamedNamespace&) = delete;
  ~NamedNamespace();

  const std::string& name() const { return name_; }

 private:
  std::string name_;
};

// A file among the namespaces that is none.
class FalseNamespace {
 public:
  enum class Kind { kFile, kDirectory, kFifo, kMountNamespace };
  explicit FalseNamespace(Kind kind);
  FalseNamespace(const FalseNamespace&) = delete;
  FalseNamespace& operator=(const FalseNamespace&) = delete;
  ~FalseNamespace();

  const std::string& name() const { return name_; }

 private:
  Kind kind_;
  std::string name_;
};

// Moves the calling thread.
void enterNamespace(const std::string& name);
// How many descriptors the process holds.
size_t openDescriptors();

}  // namespace NotifyTest
