#include "SfeModules/Testing/MfibFixture.h"

#include <arpa/inet.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "Nynet/NamespaceName.h"

namespace SfeModules {

namespace {

// One network namespace and one system name for the whole program. What it mounts, the state file
// system say, nobody else sees; its shared memory ends with it, also when a test has it die.
class Isolation : public ::testing::Environment {
 public:
  void SetUp() override {
    if (geteuid() == 0 && (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 ||
                           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                           mount("tmpfs", "/dev/shm", "tmpfs", 0, nullptr) != 0)) {
      throw std::runtime_error("cannot make namespaces of the test's own");
    }
    setenv("SYSNAME", ("test" + std::to_string(getpid())).c_str(), 1);
  }
};

const auto* const kIsolation = ::testing::AddGlobalTestEnvironment(new Isolation);

constexpr uint32_t kCounterIds = 6;

// The column that the tests' event 1 .. 6 is counted in; 0 is nobody's.
uint32_t column(uint32_t event) {
  return event == 0 ? 0 : counterId("test.event" + std::to_string(event));
}

std::string addressBytes(const std::string& text, uint32_t addrLen) {
  std::string bytes(addrLen, '\0');
  if (text != "*" &&
      inet_pton(addrLen == kIpv4AddrLen ? AF_INET : AF_INET6, text.c_str(), bytes.data()) != 1) {
    throw std::invalid_argument("no address: " + text);
  }
  return bytes;
}

}  // namespace

MfibFixture::MfibFixture() {
  createCounterRow(harness_.wid());
  clearEvents();  // rows outlive a test
  listener_ = std::make_unique<Routing::Multicast::Notify::CacheReportListener>(
      Nynet::NamespaceName::defaultNamespace());
}

MfibFixture::~MfibFixture() {
  destroyInstance();
  destroyCounterRow(harness_.wid());
}

Mfib& MfibFixture::createInstance(const Settings& settings) {
  sfe::pb::MfibArg arg;
  arg.set_vrfname(settings.vrf);
  arg.set_af(settings.af);
  arg.set_ethernet_mode(settings.ethernetMode);
  arg.set_vrfid(settings.vrfId);
  mfib_ = &harness_.create<Mfib>("Mfib", arg);
  instanceName_ = mfib_->name();
  harness_.capture(*mfib_, {0, 1, 2, 3, 4});
  sfe::pb::MfibCounterIdArg ids;
  ids.set_non_mcast_iif(column(1));
  ids.set_wrong_vif(column(2));
  ids.set_whole_pkt(column(3));
  ids.set_no_cache(column(4));
  ids.set_no_cache_resolved(column(5));
  ids.set_no_cache_expired(column(6));
  mfib_->setCounterIds(ids);
  return *mfib_;
}

void MfibFixture::destroyInstance() {
  if (mfib_ != nullptr) {
    ModuleGraph::destroyModule(instanceName_);
    mfib_ = nullptr;
  }
}

void MfibFixture::enable(const std::vector<std::string>& intfs) {
  sfe::pb::MulticastIntfArg arg;
  for (const std::string& intf : intfs) {
    arg.add_intf_ids(id(intf));
  }
  ASSERT_FALSE(mfib_->addMulticastIntfs(arg).has_error());
}

void MfibFixture::disable(const std::vector<std::string>& intfs) {
  sfe::pb::MulticastIntfArg arg;
  for (const std::string& intf : intfs) {
    arg.add_intf_ids(id(intf));
  }
  ASSERT_FALSE(mfib_->deleteMulticastIntfs(arg).has_error());
}

sfe::pb::MfibRouteArg MfibFixture::routeArg(const Route& route) const {
  const uint32_t addrLen = MfibTestPeer::addrLen(*mfib_);
  sfe::pb::MfibRouteArg arg;
  arg.set_source(addressBytes(route.source, addrLen));
  arg.set_group(addressBytes(route.group, addrLen));
  arg.set_iif(id(route.iif));
  arg.set_iif_frr(id(route.iifFrr));
  arg.set_notify(id(route.notify));
  arg.set_fastdrop(id(route.fastdrop));
  arg.set_to_cpu(route.toCpu);
  arg.set_iif_register(route.iifRegister);
  arg.set_oif_register(route.oifRegister);
  for (const Oif& oif : route.oifs) {
    sfe::pb::OifArg* added = arg.add_oifs();
    added->set_intf_id(id(oif.intf));
    added->set_gate(oif.gate);
  }
  return arg;
}

CommandResponse MfibFixture::addRoute(const Route& route) {
  return mfib_->addMroute(routeArg(route));
}

CommandResponse MfibFixture::deleteRoute(const std::string& source, const std::string& group) {
  return mfib_->deleteMroute(routeArg({.source = source, .group = group, .iif = ""}));
}

void MfibFixture::setBridgeMac(const MacAddr& mac) {
  sfe::pb::EthernetConfigArg arg;
  arg.set_mac(mac.data(), mac.size());
  ASSERT_FALSE(mfib_->setBridgeMacAddr(arg).has_error());
}

bess::PacketPtr MfibFixture::arriving(const Bytes& bytes, const Arrival& arrival) {
  std::vector<size_t> lengths = arrival.segments;
  size_t rest = bytes.size();
  for (const size_t length : lengths) {
    rest -= length;
  }
  lengths.push_back(rest);
  const uint8_t nothing = 0;  // no bytes have no address
  const uint8_t* data = bytes.empty() ? &nothing : bytes.data();
  bess::PacketPtr head;
  size_t offset = 0;
  for (const size_t length : lengths) {
    bess::PacketPtr segment = harness_.packet(std::span(data + offset, length));
    offset += length;
    if (head == nullptr) {
      head = std::move(segment);
    } else if (rte_pktmbuf_chain(head->mbuf(), segment->mbuf()) == 0) {
      segment.release();
    }
  }
  ForwardingMetadata& meta = metadataOf(head.get());
  // What an earlier packet may have left behind: nothing of it may show on a copy.
  std::memset(&meta, 0xA5, sizeof(meta));
  meta.presence = 0;
  auto put = [&meta](auto& field, const auto& value, uint64_t bit) {
    if (value.has_value()) {
      field = *value;
      meta.presence |= bit;
    }
  };
  if (arrival.hasInIntf) {
    put(meta.inIntf, std::optional<uint64_t>(id(arrival.intf)), kHasInIntf);
  }
  put(meta.qosMark, arrival.qosMark, kHasQosMark);
  put(meta.gateSelect, arrival.gateSelect, kHasGateSelect);
  put(meta.carriedByte, arrival.carriedByte, kHasCarriedByte);
  put(meta.carriedWord1, arrival.carriedWord1, kHasCarriedWord1);
  put(meta.carriedWord2, arrival.carriedWord2, kHasCarriedWord2);
  return head;
}

bess::testing::Output MfibFixture::receive(const Bytes& bytes, const Arrival& arrival) {
  return harness_.offer(*mfib_, arriving(bytes, arrival));
}

bess::testing::Output MfibFixture::receiveBatch(std::vector<bess::PacketPtr> packets) {
  return harness_.offer(*mfib_, std::move(packets));
}

bool MfibFixture::process(const Bytes& bytes, const Arrival& arrival, bess::testing::Output& out) {
  return process(arriving(bytes, arrival), false, out);
}

bool MfibFixture::process(bess::PacketPtr packet, bool reinjected, bess::testing::Output& out) {
  bool answer = false;
  harness_.run([&] {
    OutputBatchMap map(1);
    answer =
        mfib_->ProcessPacket(&harness_.context(), packet.release(), reinjected, map, Clock::now());
    for (auto& [key, batch] : map) {
      mfib_->RunChooseModule(&harness_.context(), key.gate, batch);
    }
    harness_.task().runPending(&harness_.context());
  });
  out = harness_.take(*mfib_);
  return answer;
}

std::vector<MfibFixture::Report> MfibFixture::notifications() {
  std::vector<Report> reports;
  while (auto report = listener_->receive(0)) {
    reports.push_back(std::move(*report));
  }
  return reports;
}

IntfCounterEntry* MfibFixture::intfCounters(const std::string& intf) {
  static IntfCounterEntry absent;
  const auto* found = MfibTestPeer::intfCounters(*mfib_).find(id(intf));
  return found == nullptr ? &absent : found->get();
}

MrouteCounterEntry* MfibFixture::routeCounters(const std::string& source,
                                               const std::string& group) {
  static MrouteCounterEntry absent;
  const auto* found = MfibTestPeer::mrouteCounters(*mfib_).find(key(source, group));
  return found == nullptr ? &absent : found->get();
}

void MfibFixture::clearEvents() {
  for (uint32_t id = 0; id <= kCounterIds; ++id) {
    bessCounterRow(harness_.wid())[column(id)] = 0;
  }
}

uint64_t MfibFixture::event(uint32_t id) const {
  return bessCounter(harness_.wid(), column(id));
}

MfibKey MfibFixture::key(const std::string& source, const std::string& group) const {
  const uint32_t addrLen = MfibTestPeer::addrLen(*mfib_);
  const std::string sourceBytes = addressBytes(source, addrLen);
  const std::string groupBytes = addressBytes(group, addrLen);
  return MfibKey::of(reinterpret_cast<const uint8_t*>(sourceBytes.data()),
                     reinterpret_cast<const uint8_t*>(groupBytes.data()), addrLen);
}

uint64_t MfibFixture::id(const std::string& intf) {
  return intf.empty() ? 0 : Nynet::IntfId::fromName(intf).value();
}

MfibFixture::Bytes MfibFixture::bytesOf(const bess::PacketPtr& packet) {
  const std::string text = bess::testing::contents(packet.get());
  return {text.begin(), text.end()};
}

size_t MfibFixture::packetsInUse() const {
  return bess::PacketPool::defaultPool()->inUse();
}

}  // namespace SfeModules
