#include "Bess/Port.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <net/if.h>
#include <rte_dev.h>
#include <rte_ethdev.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string_view>
#include <system_error>
#include <utility>

#include "Bess/PacketPool.h"
#include "Bess/PortProbe.h"

namespace bess {
namespace {

// What a frame has besides the MTU's bytes: the Ethernet header, two VLAN tags, the frame check
// sequence.
constexpr uint32_t kFrameOverhead = RTE_ETHER_HDR_LEN + 2 * RTE_VLAN_HLEN + RTE_ETHER_CRC_LEN;
constexpr uint32_t kRoomGrain = 1024;
constexpr uint32_t kLargePoolPackets = 8192;

std::string reason(int rc) {
  return std::string(": ") + std::strerror(std::abs(rc));
}

uint32_t roomOf(rte_mempool* pool) {
  return rte_pktmbuf_data_room_size(pool) - RTE_PKTMBUF_HEADROOM;
}

// Packets with a larger room than the daemon's own, one pool for each size. A pool is kept for
// good: packets that came from a port may outlive it.
rte_mempool* largePool(uint32_t room, int socket) {
  static auto* pools = new std::map<std::pair<uint32_t, int>, std::unique_ptr<PacketPool>>;
  room = std::min((room + kRoomGrain - 1) / kRoomGrain * kRoomGrain, PacketPool::kMaxDataRoom);
  auto& pool = (*pools)[{room, socket}];
  if (pool == nullptr) {
    pool =
        std::make_unique<PacketPool>("large" + std::to_string(room) + "_" + std::to_string(socket),
                                     kLargePoolPackets, room, socket);
  }
  return pool->pool();
}

// The frame size that the packet-socket driver is told to use; it insists on packets of that room.
uint32_t frameSizeArgument(const std::string& devargs) {
  constexpr const char* kKey = ",framesz=";
  size_t at = devargs.find(kKey);
  if (at == std::string::npos) {
    return 0;
  }
  return static_cast<uint32_t>(std::strtoul(devargs.c_str() + at + std::strlen(kKey), nullptr, 10));
}

constexpr const char* kPacketSocketDriver = "net_af_packet";

// The packet-socket driver takes large frames when the frames of its ring are large.
std::string withLargeFrames(const std::string& devargs, std::optional<uint16_t> mtu) {
  constexpr uint32_t kRingHeader = 64;  // what the kernel puts before a frame, and alignment
  bool wants = devargs.starts_with(kPacketSocketDriver) && frameSizeArgument(devargs) == 0;
  if (!wants || !mtu || *mtu <= RTE_ETHER_MTU) {
    return devargs;
  }
  std::string size = std::to_string(std::bit_ceil(*mtu + kFrameOverhead + kRingHeader));
  return devargs + ",framesz=" + size + ",blocksz=" + size;
}

// A program that the process starts must not inherit the sockets of a device: while it lives, the
// kernel would go on giving it frames of the interface, also after the port was closed.
void keepFromChildren() {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
    const int fd = std::atoi(entry.path().filename().c_str());
    int domain = 0;
    socklen_t size = sizeof(domain);
    if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 &&
        (domain == AF_PACKET || domain == AF_XDP)) {
      fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
  }
}

}  // namespace

std::unique_ptr<Port> Port::open(const PortConfig& wanted) {
  PortConfig config = wanted;
  config.devargs = withLargeFrames(wanted.devargs, wanted.mtu);
  if (config.mtu && (*config.mtu < kMinMtu || *config.mtu > kMaxMtu)) {
    throw PortError(EINVAL, "port " + config.name + ": MTU " + std::to_string(*config.mtu) +
                                " is out of range, " + std::to_string(kMinMtu) + " to " +
                                std::to_string(kMaxMtu) + " is possible");
  }
  if (config.rxQueues == 0 || config.txQueues == 0) {
    throw PortError(EINVAL, "port " + config.name + ": a port needs a queue in each direction");
  }
  // A device that was started with the process is taken as it is.
  int probed = findProbedPort(config.devargs);
  uint16_t id = probed >= 0 ? static_cast<uint16_t>(probed) : probePort(config.devargs);
  std::unique_ptr<Port> port(new Port(config, id));
  port->configure();
  port->setUpQueues();
  port->start();
  return port;
}

Port::Port(PortConfig config, uint16_t id)
    : config_(std::move(config)), id_(id), txState_(new TxQueue[config_.txQueues + 1]) {
  for (auto& queue : txQueueOfWorker_) {
    queue.store(kNoTxQueue, std::memory_order_relaxed);
  }
}

Port::~Port() {
  close();
}

// A ring outlives its device, and what is in it would never be freed.
void Port::drain() {
  if (status().driver != "net_ring") {
    return;
  }
  for (uint16_t queue = 0; running_ && queue < rxQueues(); ++queue) {
    Packet* pkts[PacketBatch::kMaxBurst];
    while (uint16_t n = receive(queue, pkts, PacketBatch::kMaxBurst)) {
      Packet::Free(pkts, n);
    }
  }
}

void Port::close() {
  drain();
  if (int rc = rte_eth_dev_stop(id_); rc < 0) {
    LOG(WARNING) << "Port " << name() << " does not stop" << reason(rc);
  }
  if (int rc = rte_eth_dev_close(id_); rc < 0) {
    LOG(WARNING) << "Port " << name() << " does not close" << reason(rc);
  }
  if (device_ == nullptr) {
    return;
  }
  if (int rc = rte_dev_remove(device_); rc < 0) {
    LOG(WARNING) << "The device of port " << name() << " cannot be removed" << reason(rc);
  }
}

void Port::fail(int errnoValue, const std::string& text) const {
  throw PortError(std::abs(errnoValue), "port " + name() + " (" + devargs() + "): " + text);
}

void Port::configure() {
  rte_eth_dev_info info{};
  if (int rc = rte_eth_dev_info_get(id_, &info); rc < 0) {
    fail(rc, "the driver tells nothing of its device" + reason(rc));
  }
  device_ = info.device;
  int node = rte_eth_dev_socket_id(id_);
  socket_ = node < 0 ? 0 : node;
  for (auto [wanted, most, what] : {std::tuple{rxQueues(), info.max_rx_queues, "receive"},
                                    std::tuple{txQueues(), info.max_tx_queues, "transmit"}}) {
    if (wanted > most) {
      fail(EINVAL, std::to_string(wanted) + " " + what + " queues are wanted and the device has " +
                       std::to_string(most) +
                       "; some drivers take the number as an argument (qpairs, queue_count)");
    }
  }
  rte_eth_conf conf{};
  kernelMtu_ = config_.mtu && std::string_view(info.driver_name) == kPacketSocketDriver &&
               *config_.mtu > RTE_ETHER_MTU;
  conf.rxmode.mtu = kernelMtu_ ? 0 : config_.mtu.value_or(0);
  // A driver that splits long frames over several packets needs no larger packets.
  conf.rxmode.offloads = info.rx_offload_capa & RTE_ETH_RX_OFFLOAD_SCATTER;
  if (rxQueues() > 1 && (info.flow_type_rss_offloads & RTE_ETH_RSS_IP) != 0) {
    conf.rxmode.mq_mode = RTE_ETH_MQ_RX_RSS;
    conf.rx_adv_conf.rss_conf.rss_hf = info.flow_type_rss_offloads & RTE_ETH_RSS_IP;
  }
  conf.txmode.offloads = info.tx_offload_capa & RTE_ETH_TX_OFFLOAD_MULTI_SEGS;
  rxOffloads_ = conf.rxmode.offloads;
  txChains_ = conf.txmode.offloads != 0;
  DriverLog log;
  if (int rc = rte_eth_dev_configure(id_, rxQueues(), txQueues(), &conf); rc < 0) {
    fail(rc, "the device cannot be configured" + reason(rc) + " (" + log.text() + ")");
  }
}

rte_mempool* Port::choosePool() {
  PacketPool* usual = PacketPool::defaultPool(socket_);
  if (usual == nullptr) {
    fail(ENOMEM, "there is no packet pool");
  }
  rte_mempool* pool = usual->pool();
  uint16_t mtu = RTE_ETHER_MTU;
  rte_eth_dev_get_mtu(id_, &mtu);
  bool scatters = (rxOffloads_ & RTE_ETH_RX_OFFLOAD_SCATTER) != 0;
  uint32_t room = scatters ? 0 : config_.mtu.value_or(mtu) + kFrameOverhead;
  room = std::max(room, std::min(frameSizeArgument(devargs()), PacketPool::kMaxDataRoom));
  if (roomOf(pool) >= room) {
    return pool;
  }
  return largePool(room, socket_);
}

void Port::setUpQueues() {
  pool_ = choosePool();
  uint16_t rxSize = config_.queueSize;
  uint16_t txSize = config_.queueSize;
  if (config_.queueSize != 0) {
    rte_eth_dev_adjust_nb_rx_tx_desc(id_, &rxSize, &txSize);
  }
  auto node = static_cast<unsigned>(socket_);
  DriverLog log;
  for (uint16_t queue = 0; queue < rxQueues(); ++queue) {
    if (int rc = rte_eth_rx_queue_setup(id_, queue, rxSize, node, nullptr, pool_); rc < 0) {
      fail(rc, "receive queue " + std::to_string(queue) + " fails" + reason(rc) + " (" +
                   log.text() + ")");
    }
  }
  for (uint16_t queue = 0; queue < txQueues(); ++queue) {
    if (int rc = rte_eth_tx_queue_setup(id_, queue, txSize, node, nullptr); rc < 0) {
      fail(rc, "transmit queue " + std::to_string(queue) + " fails" + reason(rc) + " (" +
                   log.text() + ")");
    }
  }
}

void Port::applyMtu() {
  if (kernelMtu_) {
    return applyKernelMtu();
  }
  if (!config_.mtu) {
    return;
  }
  DriverLog log;
  int rc = rte_eth_dev_set_mtu(id_, *config_.mtu);
  // A driver without the operation has taken the value with the configuration.
  if (rc < 0 && rc != -ENOTSUP) {
    fail(rc, "MTU " + std::to_string(*config_.mtu) + " is refused" + reason(rc) + " (" +
                 log.text() + ")");
  }
}

void Port::applyKernelMtu() {
  rte_eth_dev_info info{};
  rte_eth_dev_info_get(id_, &info);
  ifreq request{};
  request.ifr_mtu = *config_.mtu;
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  bool done = fd >= 0 && if_indextoname(info.if_index, request.ifr_name) != nullptr &&
              ioctl(fd, SIOCSIFMTU, &request) == 0;
  int error = errno;
  if (fd >= 0) {
    ::close(fd);
  }
  if (!done) {
    fail(error, "MTU " + std::to_string(*config_.mtu) + " is refused" + reason(error));
  }
}

void Port::start() {
  applyMtu();
  DriverLog log;
  if (int rc = rte_eth_dev_start(id_); rc < 0) {
    fail(rc, "the device does not start" + reason(rc) + " (" + log.text() + ")");
  }
  running_ = true;
  keepFromChildren();
  applyFilters();
}

void Port::applyFilters() {
  bool all = config_.allMulticast.value_or(true);
  int rc = all ? rte_eth_allmulticast_enable(id_) : rte_eth_allmulticast_disable(id_);
  bool without = all && rc == -ENOTSUP;
  if (rc < 0 && rc != -ENOTSUP) {
    fail(rc,
         std::string("all-multicast mode cannot be turned ") + (all ? "on" : "off") + reason(rc));
  }
  bool promiscuous = config_.promiscuous.value_or(without);
  rc = promiscuous ? rte_eth_promiscuous_enable(id_) : rte_eth_promiscuous_disable(id_);
  // Drivers without either mode are software that hands over every frame.
  if (rc < 0 && rc != -ENOTSUP) {
    fail(rc, std::string("promiscuous mode cannot be turned ") + (promiscuous ? "on" : "off") +
                 reason(rc));
  }
}

PortStatus Port::status() const {
  PortStatus status;
  rte_eth_dev_info info{};
  if (rte_eth_dev_info_get(id_, &info) == 0 && info.driver_name != nullptr) {
    status.driver = info.driver_name;
  }
  rte_ether_addr mac{};
  if (rte_eth_macaddr_get(id_, &mac) == 0) {
    std::copy(std::begin(mac.addr_bytes), std::end(mac.addr_bytes), status.mac.begin());
  }
  rte_eth_dev_get_mtu(id_, &status.mtu);
  status.mtu = kernelMtu_ ? *config_.mtu : status.mtu;
  rte_eth_link link{};
  if (rte_eth_link_get_nowait(id_, &link) == 0) {
    status.linkUp = link.link_status == RTE_ETH_LINK_UP;
    status.linkSpeedMbps = link.link_speed == RTE_ETH_SPEED_NUM_UNKNOWN ? 0 : link.link_speed;
  }
  status.promiscuous = rte_eth_promiscuous_get(id_) == 1;
  status.allMulticast = rte_eth_allmulticast_get(id_) == 1;
  return status;
}

PortCounters Port::counters() const {
  PortCounters counters;
  rte_eth_stats stats{};
  if (rte_eth_stats_get(id_, &stats) == 0) {
    counters.rxPackets = stats.ipackets;
    counters.rxBytes = stats.ibytes;
    counters.rxMissed = stats.imissed;
    counters.rxErrors = stats.ierrors;
    counters.rxNoBuffer = stats.rx_nombuf;
    counters.txPackets = stats.opackets;
    counters.txBytes = stats.obytes;
    counters.txErrors = stats.oerrors;
  }
  counters.rxErrors += rxTagErrors_.load(std::memory_order_relaxed);
  for (unsigned queue = 0; queue <= txQueues(); ++queue) {
    counters.txDropped += txState_[queue].dropped.load(std::memory_order_relaxed);
  }
  return counters;
}

void Port::addUser(const std::string& module, bool reader) {
  if (reader) {
    if (!reader_.empty()) {
      throw PortError(EBUSY, "port " + name() + " is read by module " + reader_ +
                                 " already; one module reads all receive queues of a port");
    }
    reader_ = module;
  }
  users_.push_back(module);
}

void Port::removeUser(const std::string& module) {
  auto user = std::find(users_.begin(), users_.end(), module);
  if (user != users_.end()) {
    users_.erase(user);
  }
  if (reader_ == module) {
    reader_.clear();
  }
}

std::string Port::users() const {
  std::string text;
  for (const std::string& user : users_) {
    text += (text.empty() ? "" : ", ") + user;
  }
  return text;
}

}  // namespace bess
