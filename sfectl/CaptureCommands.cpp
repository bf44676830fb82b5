// `sfectl capture`: the packets of a gate as a capture file. The daemon's hook "pcap" writes into a
// nameless file beside its socket, a place that both can reach whatever else each of them sees of
// the file system; the packets are taken from there as they come.
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>

#include "sfectl/Arguments.h"
#include "sfectl/Commands.h"
#include "sfectl/Errors.h"
#include "sfectl/PcapStream.h"
#include "sfectl/StopSignals.h"

namespace Sfectl {
namespace {

using Stub = Client::Stub;
using SteadyClock = std::chrono::steady_clock;

constexpr double kMaxTimeout = 1'000'000;
constexpr size_t kReadBytes = size_t{1} << 16;
constexpr mode_t kFileMode = 0600;

struct CaptureWords {
  std::string gate;
  std::string file;
  uint64_t count = 0;         // 0: no end
  double timeoutSeconds = 0;  // 0: no end
};

[[noreturn]] void refuse(const std::string& what) {
  throw RuntimeError(what + ": " + std::strerror(errno));
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() { close(fd_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// "MODULE", "MODULE:in", "MODULE:3", "MODULE:in:3".
bess::pb::HookRequest hookOn(const std::string& word) {
  bess::pb::HookRequest request;
  request.set_hook("pcap");
  request.set_direction(bess::pb::GATE_OUT);
  std::string rest = word;
  const auto last = [&rest] {
    const size_t colon = rest.rfind(':');
    return colon == std::string::npos ? std::string() : rest.substr(colon + 1);
  };
  const auto cut = [&rest] { rest.resize(rest.rfind(':')); };
  if (const std::string gate = last(); !gate.empty() && gate != "in" && gate != "out") {
    request.set_gate(parseNumber(gate, "gate", kMaxGate));
    cut();
  }
  if (const std::string direction = last(); direction == "in" || direction == "out") {
    request.set_direction(direction == "in" ? bess::pb::GATE_IN : bess::pb::GATE_OUT);
    cut();
  }
  if (rest.empty() || rest.back() == ':') {
    throw UsageError("'" + printable(word) + "' names no gate; expected MODULE[:in|:out][:GATE]");
  }
  request.set_module(rest);
  return request;
}

// The directory of the daemon's socket.
std::string meetingPlace(const std::string& socket) {
  const std::string path = socket.starts_with("unix:") ? socket.substr(strlen("unix:")) : socket;
  const size_t slash = path.rfind('/');
  if (!path.starts_with('/')) {
    throw UsageError("capture needs a daemon on this machine: --socket unix:/PATH");
  }
  return path.substr(0, slash == 0 ? 1 : slash);
}

// Where the packets go in the end.
class Output {
 public:
  Output(Session& session, const std::string& file) : session_(session), file_(file) {
    if (file == "-") {
      if (&session.out() == &std::cout && isatty(STDOUT_FILENO) != 0) {
        throw UsageError("packets are no text for a terminal: name a file, or use a pipe");
      }
      return;
    }
    fd_.emplace(open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode));
    if (fd_->get() < 0) {
      refuse(printable(file));
    }
  }

  void write(std::string_view bytes) {
    if (!fd_) {
      session_.out().write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
      return;
    }
    while (!bytes.empty()) {
      const ssize_t n = ::write(fd_->get(), bytes.data(), bytes.size());
      if (n < 0 && errno != EINTR) {
        refuse(printable(file_));
      }
      bytes.remove_prefix(n > 0 ? static_cast<size_t>(n) : 0);
    }
  }

  void flush() {
    if (!fd_ && !session_.out().flush()) {
      throw RuntimeError("nobody reads the output");
    }
  }

 private:
  Session& session_;
  const std::string file_;
  std::optional<Descriptor> fd_;
};

// The hook, with the file that it writes; both are gone when this is.
class Tap {
 public:
  Tap(Session& session, bess::pb::HookRequest hook) : client_(session.client()), hook_(hook) {
    std::string path = meetingPlace(session.socket) + "/sfectl-capture.XXXXXX";
    file_.emplace(mkostemp(path.data(), O_CLOEXEC));
    if (file_->get() < 0) {
      refuse("cannot write beside the daemon's socket, " + printable(path));
    }
    hook_.set_file(path);
    try {
      watch_.emplace(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
      if (inotify_add_watch(watch_->get(), path.c_str(), IN_MODIFY) < 0) {
        refuse("cannot watch " + printable(path));
      }
      client_.call(&Stub::AddHook, hook_);
    } catch (...) {
      unlink(path.c_str());
      throw;
    }
    // The daemon has opened it; from here on nobody needs its name.
    unlink(path.c_str());
  }
  ~Tap() {
    try {
      remove();
    } catch (const std::exception&) {  // the module is gone, and the hook with it
    }
  }
  Tap(const Tap&) = delete;
  Tap& operator=(const Tap&) = delete;

  int watchFd() const { return watch_->get(); }

  // The daemon writes out what it still has; the rest can be read afterwards.
  void remove() {
    if (!removed_) {
      removed_ = true;
      client_.call(&Stub::RemoveHook, hook_);
    }
  }

  // Returns: false when there is nothing more for now.
  bool read(PcapStream& stream) {
    std::array<char, 4096> events;
    while (::read(watch_->get(), events.data(), events.size()) > 0) {
    }
    buffer_.resize(kReadBytes);
    const ssize_t n = pread(file_->get(), buffer_.data(), buffer_.size(), offset_);
    if (n < 0) {
      refuse("cannot read what the daemon captured");
    }
    stream.add({buffer_.data(), static_cast<size_t>(n)});
    offset_ += n;
    // What was read need not stay on the disk. Where the file system cannot do it, it stays.
    if (n > 0) {
      (void)fallocate(file_->get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, offset_);
    }
    return n > 0;
  }

  // What the daemon says of the hook, such as how many packets it had no room for.
  std::string state() {
    const auto answer = client_.call(&Stub::ListHooks);
    for (const auto& hook : answer.hooks()) {
      if (hook.where().file() == hook_.file()) {
        return hook.state();
      }
    }
    return "";
  }

 private:
  Client& client_;
  bess::pb::HookRequest hook_;
  std::optional<Descriptor> file_;
  std::optional<Descriptor> watch_;
  std::vector<char> buffer_;
  off_t offset_ = 0;
  bool removed_ = false;
};

// Waits for more. Returns: false when a signal or the time ends the capture.
bool waitForMore(const Tap& tap,
                 const StopSignals& stop,
                 std::optional<SteadyClock::time_point> deadline) {
  int timeoutMs = -1;
  if (deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - SteadyClock::now());
    if (left.count() <= 0) {
      return false;
    }
    timeoutMs = static_cast<int>(left.count());
  }
  pollfd fds[] = {{tap.watchFd(), POLLIN, 0}, {stop.fd(), POLLIN, 0}};
  const int ready = poll(fds, 2, timeoutMs);
  if (ready < 0 && errno != EINTR) {
    refuse("cannot wait for packets");
  }
  return ready != 0 && fds[1].revents == 0;
}

// Moves what is there. Returns: false when the wanted number is reached.
bool moveWaiting(Tap& tap, PcapStream& stream, Output& output, uint64_t count) {
  bool more = true;
  while (more) {
    more = tap.read(stream);
    while (count == 0 || stream.records() < count) {
      const auto part = stream.next();
      if (!part) {
        break;
      }
      output.write(*part);
    }
    output.flush();
    if (count != 0 && stream.records() == count) {
      return false;
    }
  }
  return true;
}

// "FILE, 3 packets left out": the number, when it is not 0.
std::string leftOut(const std::string& state) {
  const size_t comma = state.find(", ");
  return comma == std::string::npos || state.compare(comma, 4, ", 0 ") == 0 ? ""
                                                                            : state.substr(comma);
}

void capture(Session& session, const CaptureWords& words) {
  const bess::pb::HookRequest hook = hookOn(words.gate);
  std::optional<SteadyClock::time_point> deadline;
  if (words.timeoutSeconds > 0) {
    deadline = SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(
                                        std::chrono::duration<double>(words.timeoutSeconds));
  }
  StopSignals stop;
  meetingPlace(session.socket);
  Output output(session, words.file);
  PcapStream stream;
  Tap tap(session, hook);
  session.err() << "capturing" << std::endl;
  bool wanted = true;
  bool stopped = false;
  while ((wanted = moveWaiting(tap, stream, output, words.count))) {
    if (!waitForMore(tap, stop, deadline)) {
      stopped = stop.take() != 0;
      break;
    }
  }
  const std::string state = tap.state();
  tap.remove();
  if (wanted) {
    moveWaiting(tap, stream, output, words.count);
  }
  session.err() << stream.records() << " packets captured" << printable(leftOut(state))
                << std::endl;
  if (!stopped && words.count != 0 && stream.records() < words.count) {
    throw RuntimeError(std::to_string(stream.records()) + " of " + std::to_string(words.count) +
                       " packets came in time");
  }
}

}  // namespace

void addCaptureCommands(CLI::App& app, Session& session) {
  auto words = std::make_shared<CaptureWords>();
  auto* command = app.add_subcommand("capture", "Write the packets of a gate into a capture file");
  command
      ->add_option("MODULE", words->gate,
                   "MODULE[:in|:out][:GATE]; the output gate 0 when nothing else is said")
      ->required();
  command->add_option("FILE", words->file, "Where to write; '-' is the standard output")
      ->required();
  command->add_option("--count", words->count, "End after so many packets")
      ->check(CLI::PositiveNumber);
  command->add_option("--timeout", words->timeoutSeconds, "End after so many seconds")
      ->check(CLI::Range(0.001, kMaxTimeout));
  session.bind(command, [words](Session& s) { capture(s, *words); });
}

}  // namespace Sfectl
