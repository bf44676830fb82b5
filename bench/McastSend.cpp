// Sends UDP packets to one multicast group at a given rate, and says how many it sent in what time.
//
//   mcast_send INTERFACE GROUP PAYLOAD_BYTES PACKETS_PER_SECOND SECONDS
//
// Rate 0: as fast as the machine can. Prints {"sent": N, "seconds": T}.

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kBurst = 32;
constexpr uint16_t kPort = 5000;
constexpr int kTtl = 16;

struct Options {
  std::string interface;
  std::string group;
  size_t payload = 0;
  double rate = 0;
  double seconds = 0;
};

Options parse(char** argv) {
  constexpr size_t kMostPayload = 1472;
  const Options options = {.interface = argv[1],
                           .group = argv[2],
                           .payload = std::stoul(argv[3]),
                           .rate = std::stod(argv[4]),
                           .seconds = std::stod(argv[5])};
  if (options.payload > kMostPayload || !(options.rate >= 0) || !(options.seconds > 0)) {
    throw std::invalid_argument("a payload of up to 1472 bytes, a rate, a time");
  }
  return options;
}

void check(int result, const char* what) {
  if (result < 0) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

int openSocket(const Options& options, const sockaddr_in& target) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  check(fd, "socket");
  ip_mreqn from = {};
  from.imr_ifindex = static_cast<int>(if_nametoindex(options.interface.c_str()));
  check(setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &from, sizeof(from)), "interface");
  check(setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &kTtl, sizeof(kTtl)), "TTL");
  check(connect(fd, reinterpret_cast<const sockaddr*>(&target), sizeof(target)), "group");
  return fd;
}

void sendAll(int fd, mmsghdr* messages) {
  size_t done = 0;
  while (done < kBurst) {
    const int sent = sendmmsg(fd, messages + done, kBurst - done, 0);
    if (sent < 0 && errno == ENOBUFS) {
      continue;
    }
    check(sent, "sendmmsg");
    done += static_cast<size_t>(sent);
  }
}

// Sleeps while there is time for that, then watches the clock.
void waitUntil(Clock::time_point due) {
  constexpr std::chrono::microseconds kSleepMost{100};
  while (Clock::now() + kSleepMost < due) {
    std::this_thread::sleep_until(due - kSleepMost);
  }
  while (Clock::now() < due) {
  }
}

void run(const Options& options) {
  sockaddr_in target = {};
  target.sin_family = AF_INET;
  target.sin_port = htons(kPort);
  if (inet_pton(AF_INET, options.group.c_str(), &target.sin_addr) != 1) {
    throw std::invalid_argument("no address: " + options.group);
  }
  const int fd = openSocket(options, target);
  std::vector<char> payload(options.payload, 'x');
  iovec data = {.iov_base = payload.data(), .iov_len = payload.size()};
  std::array<mmsghdr, kBurst> messages{};
  for (mmsghdr& message : messages) {
    message.msg_hdr.msg_iov = &data;
    message.msg_hdr.msg_iovlen = 1;
  }
  const auto start = Clock::now();
  const std::chrono::duration<double> length(options.seconds);
  unsigned long sent = 0;
  while (Clock::now() - start < length) {
    sendAll(fd, messages.data());
    sent += kBurst;
    if (options.rate > 0) {
      waitUntil(start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                            static_cast<double>(sent) / options.rate)));
    }
  }
  const std::chrono::duration<double> took = Clock::now() - start;
  close(fd);
  std::printf("{\"sent\": %lu, \"seconds\": %.6f}\n", sent, took.count());
}

}  // namespace

int main(int argc, char** argv) {
  constexpr int kArguments = 6;
  try {
    if (argc != kArguments) {
      throw std::invalid_argument("INTERFACE GROUP PAYLOAD_BYTES PACKETS_PER_SECOND SECONDS");
    }
    run(parse(argv));
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "mcast_send: %s\n", error.what());
    return 1;
  }
}
