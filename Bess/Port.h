// A network port of the packet library: any driver, opened by its device arguments, running from
// open() to destruction.
//
// Threads    | operation                   | control | worker |
//            | open, destruction           |   yes   |   -    |
//            | status, counters, link      |   yes   |   -    |
//            | addUser, removeUser, users  |   yes   |   -    |
//            | releaseTxQueues             | yes, workers paused |
//            | receive (one per queue)     |    -    |  yes   |
//            | txQueueOf, send             |    -    |  yes   |
// Ownership  : receive() hands packets to the caller; send() takes every packet, sent or not.
// Errors     : open() throws PortError, whose text names the device and what would be right. The
//              data path throws nothing: what a device does not take is freed and counted.
// Cost       : receive() and send() are one driver call each, without a lock; memory is taken only
//              to linearise a chain for a driver that cannot send it.
// Invariants :
//   (1) a receive queue is polled by one task, a transmit queue is used by one worker at a time.
//   (2) a port is not removed while a module uses it.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Bess/Packet.h"
#include "Bess/Types.h"

struct rte_device;
struct rte_mempool;

namespace bess {

// what() is the text alone: it says already what the system's words for the number would.
class PortError : public std::system_error {
 public:
  PortError(int errnoValue, std::string text)
      : std::system_error(errnoValue, std::generic_category()), text_(std::move(text)) {}
  int errnoValue() const { return code().value(); }
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

// How a port is opened; what is absent is left to the driver or to the stated default.
struct PortConfig {
  std::string name;
  std::string devargs;  // "net_af_packet0,iface=eth0", "0000:01:00.0", ...
  uint16_t rxQueues = 1;
  uint16_t txQueues = 1;   // one for each worker that sends through the port
  uint16_t queueSize = 0;  // descriptors of each queue; 0: what the driver prefers
  std::optional<uint16_t> mtu;
  std::optional<bool> promiscuous;   // absent: only where the driver has no all-multicast mode
  std::optional<bool> allMulticast;  // absent: on
};

struct PortCounters {
  uint64_t rxPackets = 0;
  uint64_t rxBytes = 0;
  uint64_t rxMissed = 0;
  uint64_t rxErrors = 0;
  uint64_t rxNoBuffer = 0;
  uint64_t txPackets = 0;
  uint64_t txBytes = 0;
  uint64_t txErrors = 0;   // of the device
  uint64_t txDropped = 0;  // not taken by the device, not linear, or without a queue of their own
};

struct PortStatus {
  std::string driver;
  std::array<uint8_t, 6> mac{};
  uint16_t mtu = 0;
  bool linkUp = false;
  uint32_t linkSpeedMbps = 0;  // 0: unknown
  bool promiscuous = false;
  bool allMulticast = false;
};

class Port {
 public:
  static constexpr int kNoTxQueue = -1;
  static constexpr uint16_t kMinMtu = 68;
  static constexpr uint16_t kMaxMtu = 16000;

  static std::unique_ptr<Port> open(const PortConfig& wanted);
  ~Port();  // stops, closes and removes the device
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;

  const std::string& name() const { return config_.name; }
  const std::string& devargs() const { return config_.devargs; }
  uint16_t id() const { return id_; }
  uint16_t rxQueues() const { return config_.rxQueues; }
  uint16_t txQueues() const { return config_.txQueues; }
  uint16_t queueSize() const { return config_.queueSize; }  // as wanted; 0: the driver's
  PortStatus status() const;
  PortCounters counters() const;

  // The modules that hold this port. A `reader` polls its receive queues: there is at most one.
  // Errors: addUser throws PortError (EBUSY) for a second reader.
  void addUser(const std::string& module, bool reader);
  void removeUser(const std::string& module);
  std::string users() const;  // "in0, out0"; empty when nobody uses the port

  // Returns: how many packets were put into `pkts`, at most `n`. Each has this port's id, no
  // metadata and its VLAN tag in place.
  uint16_t receive(uint16_t queue, Packet** pkts, uint16_t n);

  // The transmit queue of worker `wid`, claimed at its first call; kNoTxQueue when more workers
  // send than there are queues. Requires: called by that worker alone.
  int txQueueOf(int wid);
  // Gives every claimed transmit queue back. Requires: no worker runs.
  void releaseTxQueues();

  // Sends through `queue`, or drops everything when it is kNoTxQueue. Returns: how many the device
  // took.
  uint16_t send(int queue, Packet** pkts, uint16_t n);

 private:
  struct alignas(64) TxQueue {
    std::atomic<uint64_t> dropped{0};
  };

  Port(PortConfig config, uint16_t id);
  void configure();
  void setUpQueues();
  void start();
  void applyMtu();
  void applyKernelMtu();
  void applyFilters();
  rte_mempool* choosePool();
  void drain();
  void close();
  uint16_t linearise(Packet** pkts, uint16_t n, uint64_t* dropped);
  Packet* linear(Packet* pkt);
  [[noreturn]] void fail(int errnoValue, const std::string& text) const;

  // Constant after open().
  PortConfig config_;
  uint16_t id_;
  rte_device* device_ = nullptr;
  rte_mempool* pool_ = nullptr;
  int socket_ = 0;
  uint64_t rxOffloads_ = 0;
  bool running_ = false;
  // The driver's limit is nominal and the MTU is set on the kernel's interface (packet sockets).
  bool kernelMtu_ = false;
  bool txChains_ = false;  // the driver sends packets of several segments

  // Control.
  std::vector<std::string> users_;
  std::string reader_;

  // Workers. The last element of txState_ counts for senders without a queue.
  std::unique_ptr<TxQueue[]> txState_;
  std::array<std::atomic<int16_t>, kMaxWorkers + 1> txQueueOfWorker_;
  std::atomic<uint16_t> txClaimed_{0};
  std::atomic<uint64_t> rxTagErrors_{0};
};

}  // namespace bess
