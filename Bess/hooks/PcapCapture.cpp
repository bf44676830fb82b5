#include "Bess/hooks/PcapCapture.h"

#include <fcntl.h>
#include <rte_mbuf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <system_error>
#include <utility>

#include "Bess/Packet.h"

namespace {

// The file format: draft-ietf-opsawg-pcap, host byte order.
struct FileHeader {
  uint32_t magic = 0xa1b23c4d;  // times in nanoseconds
  uint16_t major = 2;
  uint16_t minor = 4;
  uint32_t reserved[2] = {};
  uint32_t snapLength = PcapCapture::kSnapLength;
  uint32_t linkType = 1;  // Ethernet
};
static_assert(sizeof(FileHeader) == 24);

struct RecordHeader {
  uint32_t seconds;
  uint32_t nanoseconds;
  uint32_t captured;
  uint32_t length;
};
static_assert(sizeof(RecordHeader) == 16);

template <class T>
void append(std::vector<char>& out, const T& header) {
  const char* bytes = reinterpret_cast<const char*>(&header);
  out.insert(out.end(), bytes, bytes + sizeof(header));
}

[[noreturn]] void refuse(int errnoValue, const std::string& text) {
  throw std::system_error(errnoValue, std::generic_category(), text);
}

int openFile(const std::string& file) {
  if (file.empty()) {
    refuse(EINVAL, "a capture needs the name of its file");
  }
  // A pipe without a reader must not hold the caller.
  int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0600);
  if (fd < 0) {
    refuse(errno, "capture file " + file + " cannot be written");
  }
  struct stat info {};
  if (fstat(fd, &info) != 0 || !(S_ISREG(info.st_mode) || S_ISCHR(info.st_mode))) {
    close(fd);
    refuse(EINVAL, "capture file " + file + " is no regular file");
  }
  return fd;
}

}  // namespace

PcapCapture::PcapCapture(std::string file)
    : GateHook("pcap"), file_(std::move(file)), fd_(openFile(file_)) {
  // Two of these are in turn: neither grows while a worker waits.
  buffer_.reserve(kBufferBytes);
  append(buffer_, FileHeader{});
  if (int error = writeAll(buffer_); error != 0) {
    close(fd_);
    refuse(error, "capture file " + file_ + " cannot be written");
  }
  buffer_.clear();
  writer_ = std::thread(&PcapCapture::writeLoop, this);
}

PcapCapture::~PcapCapture() {
  {
    std::lock_guard guard(lock_);
    ending_ = true;
  }
  work_.notify_one();
  writer_.join();
  close(fd_);
}

void PcapCapture::ProcessBatch(const bess::PacketBatch* batch) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  bool wake = false;
  {
    std::lock_guard guard(lock_);
    bool idle = buffer_.empty();
    ++stats_.batches;
    for (const bess::Packet* pkt : *batch) {
      appendRecord(pkt, static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_nsec));
    }
    wake = idle && !buffer_.empty();
  }
  if (wake) {
    work_.notify_one();
  }
}

void PcapCapture::appendRecord(const bess::Packet* pkt, uint32_t seconds, uint32_t nanoseconds) {
  uint32_t captured = std::min(pkt->totalLen(), kSnapLength);
  if (error_ != 0 || buffer_.size() + sizeof(RecordHeader) + captured > kBufferBytes) {
    ++missed_;
    return;
  }
  append(buffer_, RecordHeader{seconds, nanoseconds, captured, pkt->totalLen()});
  uint32_t left = captured;
  for (const rte_mbuf* segment = pkt->mbuf(); segment != nullptr && left > 0;
       segment = segment->next) {
    uint32_t n = std::min<uint32_t>(left, segment->data_len);
    const char* data = rte_pktmbuf_mtod(segment, const char*);
    buffer_.insert(buffer_.end(), data, data + n);
    left -= n;
  }
  buffer_.resize(buffer_.size() + left);
  ++stats_.packets;
  stats_.bytes += pkt->totalLen();
}

void PcapCapture::writeLoop() {
  std::vector<char> taken;
  taken.reserve(kBufferBytes);
  std::unique_lock guard(lock_);
  for (;;) {
    work_.wait(guard, [this] { return ending_ || !buffer_.empty(); });
    if (buffer_.empty()) {
      return;
    }
    taken.swap(buffer_);
    guard.unlock();
    int error = writeAll(taken);
    taken.clear();
    guard.lock();
    if (error != 0) {
      error_ = error;
      buffer_.clear();
    }
  }
}

int PcapCapture::writeAll(const std::vector<char>& bytes) const {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = write(fd_, bytes.data() + done, bytes.size() - done);
    if (n == 0) {
      return EIO;
    }
    if (n < 0 && errno != EINTR) {
      return errno;
    }
    done += n > 0 ? static_cast<size_t>(n) : 0;
  }
  return 0;
}

GateHookStats PcapCapture::stats() const {
  std::lock_guard guard(lock_);
  return stats_;
}

std::string PcapCapture::state() const {
  std::lock_guard guard(lock_);
  std::string text = file_ + ", " + std::to_string(missed_) + " packets left out";
  if (error_ != 0) {
    text += std::string(", ended: ") + std::strerror(error_);
  }
  return text;
}

[[maybe_unused]] static const bool kRegistered = GateHookRegistry::registerHook(
    "pcap",
    [](const std::string& file) { return std::make_unique<PcapCapture>(file); });
