#include "Bess/PortProbe.h"

#include <rte_dev.h>
#include <rte_errno.h>
#include <rte_ethdev.h>
#include <rte_log.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <mutex>

#include "Bess/Port.h"

namespace bess {
namespace {

constexpr size_t kMaxDriverText = 400;
constexpr const char* kForms =
    "device arguments are a driver's name with a number and its arguments, such as "
    "\"net_af_packet0,iface=eth0\", or a PCI address, such as \"0000:01:00.0\"";

// The stream that takes the library's log during a probe. It is never closed: a thread may still
// hold it.
struct Tee {
  std::mutex lock;
  std::string text;           // guarded by lock
  std::FILE* next = nullptr;  // guarded by lock
};

Tee& tee() {
  static Tee* instance = new Tee;
  return *instance;
}

ssize_t writeTee(void*, const char* bytes, size_t n) {
  std::lock_guard guard(tee().lock);
  std::fwrite(bytes, 1, n, tee().next != nullptr ? tee().next : stderr);
  if (tee().text.size() < kMaxDriverText) {
    tee().text.append(bytes, std::min(n, kMaxDriverText - tee().text.size()));
  }
  return static_cast<ssize_t>(n);
}

std::FILE* teeStream() {
  static std::FILE* stream = [] {
    cookie_io_functions_t functions{};
    functions.write = writeTee;
    std::FILE* opened = fopencookie(nullptr, "w", functions);
    if (opened != nullptr) {
      setvbuf(opened, nullptr, _IOLBF, BUFSIZ);
    }
    return opened;
  }();
  return stream;
}

[[noreturn]] void failProbe(const std::string& devargs, int rc, const std::string& driverText) {
  std::string text = "device \"" + devargs + "\" ";
  int errnoValue = EINVAL;
  if (rc == -EFAULT || rc == -EINVAL) {
    text += "names no driver or no device; ";
    text += kForms;
  } else if (rc == -ENODEV) {
    errnoValue = ENODEV;
    text += "does not exist; ";
    text += kForms;
  } else {
    text += "was refused by its driver";
  }
  if (!driverText.empty()) {
    text += " (" + driverText + ")";
  }
  throw PortError(errnoValue, text);
}

}  // namespace

DriverLog::DriverLog() {
  std::FILE* stream = teeStream();
  if (stream == nullptr) {
    return;
  }
  std::FILE* before = rte_log_get_stream();
  {
    std::lock_guard guard(tee().lock);
    tee().text.clear();
    tee().next = before;
  }
  rte_openlog_stream(stream);
}

DriverLog::~DriverLog() {
  if (teeStream() != nullptr) {
    std::fflush(teeStream());
    std::lock_guard guard(tee().lock);
    rte_openlog_stream(tee().next);
  }
}

std::string DriverLog::text() const {
  if (teeStream() == nullptr) {
    return "";
  }
  std::fflush(teeStream());
  std::lock_guard guard(tee().lock);
  std::string line = tee().text;
  while (!line.empty() && line.back() == '\n') {
    line.pop_back();
  }
  for (size_t at = line.find('\n'); at != std::string::npos; at = line.find('\n', at)) {
    line.replace(at, 1, "; ");
  }
  return line;
}

int findProbedPort(const std::string& devargs) {
  rte_dev_iterator iterator{};
  if (rte_eth_iterator_init(&iterator, devargs.c_str()) != 0) {
    return -1;
  }
  uint16_t id = rte_eth_iterator_next(&iterator);
  if (id == RTE_MAX_ETHPORTS) {
    return -1;
  }
  rte_eth_iterator_cleanup(&iterator);
  return id;
}

uint16_t probePort(const std::string& devargs) {
  DriverLog log;
  if (devargs.empty()) {
    throw PortError(EINVAL, std::string("a port needs device arguments; ") + kForms);
  }
  int rc = rte_dev_probe(devargs.c_str());
  if (rc < 0) {
    failProbe(devargs, rc, log.text());
  }
  int id = findProbedPort(devargs);
  if (id < 0) {
    throw PortError(ENODEV, "device \"" + devargs + "\" has started but is no network device");
  }
  return static_cast<uint16_t>(id);
}

}  // namespace bess
