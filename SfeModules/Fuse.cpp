#define FUSE_USE_VERSION 26

#include "SfeModules/Fuse.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <fuse.h>
#include <glog/logging.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <urcu-qsbr.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <exception>
#include <map>
#include <mutex>
#include <new>
#include <set>
#include <string_view>
#include <thread>
#include <utility>

#include "Base/RcuAnnotate.h"
#include "Base/Trace.h"
#include "SfeModules/Assert.h"

namespace {

using Generator = std::function<std::string()>;

constexpr unsigned kSecondsBeforeMount = 5;
constexpr mode_t kMountPointMode = 0700;

// An object without an end: FUSE's threads use it while the process exits. It lies in the library's
// own memory, so a library that is unloaded before there are such threads leaves nothing behind.
template <class T>
class Endless {
 public:
  template <class... Args>
  explicit Endless(Args&&... args) {
    new (memory_) T(std::forward<Args>(args)...);
  }
  T& get() { return *std::launder(reinterpret_cast<T*>(memory_)); }

 private:
  alignas(T) std::byte memory_[sizeof(T)];
};

Endless<std::mutex> theLock;
Endless<std::condition_variable> theEnd;
Endless<std::map<std::string, Generator>> theRegistry;
Endless<std::multiset<std::string>> theRunning;
Endless<std::string> theMountPath("/BessProc/");

// Guarded by registryLock: registry, running, oper (until filled), fuseThread.
std::mutex& registryLock = theLock.get();
std::condition_variable& generatorEnded = theEnd.get();
std::map<std::string, Generator>& registry = theRegistry.get();
std::multiset<std::string>& running =
    theRunning.get();  // the files whose generators are running now
const std::string& fuseMountPath = theMountPath.get();
fuse_operations oper;
std::atomic<uint32_t> fuseBufferSize{0};  // written by control, read by FUSE's threads
std::atomic<int> fuseThreadId{0};         // written by the FUSE thread
std::thread* fuseThread = nullptr;        // never joined or deleted

thread_local unsigned generatorDepth = 0;  // > 0: this thread is inside a generator

// A registered QSBR reader for the life of the thread, offline unless inside a ReadSide.
class ReaderThread {
 public:
  ReaderThread() {
    urcu_qsbr_register_thread();
    urcu_qsbr_thread_offline();
  }
  ~ReaderThread() { urcu_qsbr_unregister_thread(); }
  ReaderThread(const ReaderThread&) = delete;
  ReaderThread& operator=(const ReaderThread&) = delete;
};

// Online while it lives. A thread that is online already is a registered reader of its own.
class ReadSide {
 public:
  ReadSide() : wasOnline_(urcu_qsbr_read_ongoing() != 0) {
    if (!wasOnline_) {
      thread_local ReaderThread registered;
      urcu_qsbr_thread_online();
    }
  }
  ~ReadSide() {
    if (!wasOnline_) {
      SFE_RCU_QUIESCENT();
      urcu_qsbr_thread_offline();
    }
  }
  ReadSide(const ReadSide&) = delete;
  ReadSide& operator=(const ReadSide&) = delete;

 private:
  const bool wasOnline_;
};

// One run of a file's generator; a removal of the file waits for its end.
class GeneratorRun {
 public:
  explicit GeneratorRun(const char* path) {
    std::lock_guard guard(registryLock);
    auto file = registry.find(path);
    if (file == registry.end()) {
      return;
    }
    generator_ = file->second;
    position_ = running.insert(file->first);
    found_ = true;
  }
  ~GeneratorRun() {
    if (!found_) {
      return;
    }
    generator_ = nullptr;  // what it captured goes before the removal may return
    std::lock_guard guard(registryLock);
    running.erase(position_);
    generatorEnded.notify_all();
  }
  GeneratorRun(const GeneratorRun&) = delete;
  GeneratorRun& operator=(const GeneratorRun&) = delete;

  bool found() const { return found_; }

  std::string text() const {
    struct Inside {
      Inside() { ++generatorDepth; }
      ~Inside() { --generatorDepth; }
    } inside;
    ReadSide readSide;
    return generator_();
  }

 private:
  Generator generator_;
  std::multiset<std::string>::iterator position_;
  bool found_ = false;
};

// Runs a callback's body; no exception may cross into the C library.
template <class Body>
int guarded(const char* path, Body body) {
  try {
    return body();
  } catch (const std::exception& e) {
    LOG(ERROR) << "State file " << path << " failed: " << e.what();
  } catch (...) {
    LOG(ERROR) << "State file " << path << " failed";
  }
  return -EIO;
}

bool isRegistered(const char* path) {
  std::lock_guard guard(registryLock);
  return registry.find(path) != registry.end();
}

bool isRoot(const char* path) {
  return std::string_view(path) == "/";
}

// One name that the kernel refuses would fail the whole listing.
bool canBeListed(std::string_view entry) {
  return !entry.empty() && entry.size() <= NAME_MAX && entry.find('/') == std::string_view::npos;
}

int fuseGetattr(const char* path, struct stat* attributes) {
  return guarded(path, [&] {
    *attributes = {};
    if (isRoot(path)) {
      attributes->st_mode = S_IFDIR | 0755;
      attributes->st_nlink = 2;
      return 0;
    }
    if (!isRegistered(path)) {
      return -ENOENT;
    }
    attributes->st_mode = S_IFREG | 0444;
    attributes->st_nlink = 1;
    attributes->st_size = fuseBufferSize.load(std::memory_order_relaxed);
    return 0;
  });
}

int fuseOpen(const char* path, fuse_file_info* info) {
  return guarded(path, [&] {
    if ((info->flags & O_ACCMODE) != O_RDONLY) {
      return -EACCES;
    }
    if (!isRegistered(path)) {
      return -ENOENT;
    }
    info->direct_io = 1;  // neither cached by the kernel nor cut at the reported size
    return 0;
  });
}

int fuseRead(const char* path, char* buffer, size_t size, off_t offset, fuse_file_info*) {
  return guarded(path, [&] {
    GeneratorRun run(path);
    if (!run.found()) {
      return -ENOENT;
    }
    const std::string text = run.text();
    if (offset < 0 || static_cast<uint64_t>(offset) >= text.size()) {
      return 0;
    }
    const auto start = static_cast<size_t>(offset);
    const size_t bytes = std::min({size, text.size() - start, static_cast<size_t>(INT_MAX)});
    std::memcpy(buffer, text.data() + start, bytes);
    return static_cast<int>(bytes);
  });
}

int fuseReaddir(const char* path, void* buffer, fuse_fill_dir_t filler, off_t, fuse_file_info*) {
  return guarded(path, [&] {
    if (!isRoot(path)) {
      return -ENOENT;
    }
    filler(buffer, ".", nullptr, 0);
    filler(buffer, "..", nullptr, 0);
    std::lock_guard guard(registryLock);
    for (const auto& [name, generator] : registry) {
      const std::string entry = name.substr(std::min<size_t>(1, name.size()));
      if (canBeListed(entry)) {
        filler(buffer, entry.c_str(), nullptr, 0);
      }
    }
    return 0;
  });
}

// Requires: registryLock is held. Fills once: the FUSE thread reads the table without the lock.
void fillOperations() {
  if (oper.getattr != nullptr) {
    return;
  }
  oper.getattr = fuseGetattr;
  oper.open = fuseOpen;
  oper.read = fuseRead;
  oper.readdir = fuseReaddir;
}

// Ends the process as the signal's default action does.
void actAsDefault(int signalNumber) {
  ::raise(signalNumber);  // SA_RESETHAND has put the default action back
}

// FUSE's main loop takes over the signals below where their action is the default one, and would
// swallow them. The thread itself takes no signal, and a handler that acts like the default keeps
// the process's behaviour as it is.
void keepSignalsFromFuse() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  for (int signalNumber : {SIGHUP, SIGINT, SIGTERM, SIGPIPE}) {
    struct sigaction current {};
    if (sigaction(signalNumber, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) {
      struct sigaction action {};
      action.sa_handler = actAsDefault;
      action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
      sigaction(signalNumber, &action, nullptr);
    }
  }
}

// FUSE's threads run this library's code until the process ends: it must never be unmapped.
void pinLibrary() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&fuseInit), &info) != 0 && info.dli_fname != nullptr) {
    dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
  }
}

}  // namespace

// The FUSE thread: mounts, serves until unmounted.
static void fuseLoop() {
  SFE_ASSERT(!fuseThreadId && "FUSE thread already exists");
  keepSignalsFromFuse();
  std::array<std::string, 7> arguments = {"MfibFuse", "-f",          "-o",         "auto_unmount",
                                          "-o",       "allow_other", fuseMountPath};
  std::array<char*, arguments.size() + 1> argv{};
  std::transform(arguments.begin(), arguments.end(), argv.begin(),
                 [](std::string& argument) { return argument.data(); });
  struct stat attributes {};
  if (stat(fuseMountPath.c_str(), &attributes) != 0) {
    static_cast<void>(mkdir(fuseMountPath.c_str(), kMountPointMode));
  }
  fuseThreadId = static_cast<int>(syscall(SYS_gettid));
  sleep(kSecondsBeforeMount);
  SFE_TRACE("Fuse", 3, "Fuse thread ", fuseThreadId.load(), " is starting.");
  fuse_main_real(static_cast<int>(arguments.size()), argv.data(), &oper, sizeof(oper), nullptr);
  SFE_TRACE("Fuse", 3, "Fuse thread ", fuseThreadId.load(), " is done.");
}

void fuseRegister(std::string name, std::function<std::string()> fn) {
  SFE_TRACE("Fuse", 3, "Adding ", name, " to the fuse registry. ");
  std::function<std::string()>
      replaced;  // destroyed without the lock: its captures are a stranger's
  std::lock_guard guard(registryLock);
  replaced = std::exchange(registry[name], std::move(fn));
}

void fuseDeRegister(std::string name) {
  SFE_TRACE("Fuse", 3, "Removing ", name, " from the fuse registry. ");
  std::map<std::string, Generator>::node_type removed;  // as above
  std::unique_lock guard(registryLock);
  removed = registry.extract(name);
  if (generatorDepth > 0 || running.count(name) == 0) {
    return;
  }
  const bool wasOnline = urcu_qsbr_read_ongoing() != 0;
  if (wasOnline) {
    SFE_RCU_QUIESCENT();
    urcu_qsbr_thread_offline();
  }
  generatorEnded.wait(guard, [&] { return running.count(name) == 0; });
  guard.unlock();
  if (wasOnline) {
    urcu_qsbr_thread_online();
  }
}

void fuseInit() {
  SFE_TRACE("Fuse", 3, "");
  std::lock_guard guard(registryLock);
  if (fuseThread != nullptr) {
    SFE_TRACE("Fuse", 3, "FUSE thread already exists");
    return;
  }
  fillOperations();
  pinLibrary();
  fuseThread = new std::thread(fuseLoop);
}

void fuseDeInit() {
  SFE_TRACE("Fuse", 3, "");
}

void fuseUpdateBufferSize(unsigned int size) {
  fuseBufferSize.store(size, std::memory_order_relaxed);
}

const fuse_operations& fuseOperations() {
  std::lock_guard guard(registryLock);
  fillOperations();
  return oper;
}
