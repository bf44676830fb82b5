#include "Routing/Multicast/Notify/MrtNotifySocket.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
// The kernel's headers want the C library's address types to be known.
#include <gtest/gtest.h>
#include <linux/mroute.h>
#include <linux/mroute6.h>

#include <array>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "Base/NySlab/NySlab.h"
#include "Base/Orp/SystemException.h"
#include "Routing/Multicast/Notify/AllocationCount.h"
#include "Routing/Multicast/Notify/CacheReportListener.h"
#include "Routing/Multicast/Notify/Messages.h"
#include "Routing/Multicast/Notify/NotifyTestSupport.h"

namespace Routing::Multicast::Notify {
namespace {

using NotifyTest::Bytes;
using NotifyTest::FalseNamespace;
using NotifyTest::Heard;
using NotifyTest::KernelEar;
using NotifyTest::NamedNamespace;
using Nynet::AddressFamily;
using Nynet::NamespaceName;

using Socket = MrtNotifyNetlinkSocketPam;

constexpr uint64_t kIntf = 0x0100000000302064;  // Ethernet3/1.100
constexpr uint16_t kIntfAttribute = 64;

Nynet::IpGenAddr parsed(const char* text) {
  std::array<uint8_t, 16> bytes{};
  if (inet_pton(AF_INET, text, bytes.data()) == 1) {
    return {AddressFamily::kIpv4, bytes.data()};
  }
  EXPECT_EQ(inet_pton(AF_INET6, text, bytes.data()), 1) << text;
  return {AddressFamily::kIpv6, bytes.data()};
}

template <class Message>
Orp::Ptr<Message> message(const char* source, const char* group) {
  auto made = Orp::makePtr<Message>();
  made->sourceIs(parsed(source));
  made->groupIs(parsed(group));
  return made;
}

Orp::Ptr<Nynet::Pkt> packet(unsigned size) {
  auto pkt = Nynet::globalPktManager()->newPkt();
  uint8_t* data = pkt->newSharedHeadData(size);
  for (unsigned i = 0; i < size; ++i) {
    data[i] = static_cast<uint8_t>(i * 7 + 1);
  }
  return pkt;
}

Bytes bytesOf(const Nynet::Pkt& pkt, size_t most) {
  return Bytes(pkt.headData(), pkt.headData() + std::min<size_t>(pkt.headDataLength(), most));
}

Orp::Ptr<Socket> socketIn(const NamespaceName& ns, AddressFamily af) {
  auto socket = Orp::makePtr<Socket>("Test", ns, true);
  socket->afIs(af);
  return socket;
}

Orp::Ptr<Socket> openSocket(AddressFamily af) {
  auto socket = socketIn(NamespaceName::defaultNamespace(), af);
  socket->enableTxIs(true);
  return socket;
}

int errnoOfEnable(const NamespaceName& ns) {
  const auto socket = socketIn(ns, AddressFamily::kIpv4);
  try {
    socket->enableTxIs(true);
  } catch (const Orp::SystemException& refused) {
    EXPECT_FALSE(socket->enableTx());
    return refused.errnoValue();
  }
  return 0;
}

// Each test runs in a network namespace that nobody else sends to.
class MrtNotifySocket : public testing::Test {
 protected:
  void SetUp() override {
    if (!NotifyTest::enterFreshNamespace()) {
      GTEST_SKIP() << "needs root";
    }
  }
};

TEST_F(MrtNotifySocket, tellsTheKernelsListenersOfANoCacheOverIpv4) {
  KernelEar ear({RTNLGRP_IPV4_MROUTE_R});
  const auto socket = openSocket(AddressFamily::kIpv4);
  socket->txMrtNotificationWithIntfId(message<NoCacheMessage>("10.0.0.2", "239.1.1.1"), kIntf);

  const std::vector<Heard> heard = ear.all();
  ASSERT_EQ(heard.size(), 1U);
  const Heard& report = heard.front();
  EXPECT_EQ(report.type, RTM_NEWCACHEREPORT);
  EXPECT_EQ(report.flags, 0);
  EXPECT_EQ(report.family, RTNL_FAMILY_IPMR);
  EXPECT_EQ(report.nlmsgLen, report.datagramBytes);
  EXPECT_EQ(report.values.at(IPMRA_CREPORT_MSGTYPE), Bytes{IGMPMSG_NOCACHE});
  EXPECT_EQ(report.u32(IPMRA_CREPORT_VIF_ID), 0x00302064U);
  EXPECT_EQ(report.address(IPMRA_CREPORT_SRC_ADDR), "10.0.0.2");
  EXPECT_EQ(report.address(IPMRA_CREPORT_DST_ADDR), "239.1.1.1");
  EXPECT_EQ(report.u32(IPMRA_CREPORT_TABLE), uint32_t{RT_TABLE_DEFAULT});
  EXPECT_EQ(report.u64(kIntfAttribute), kIntf);
  EXPECT_EQ(report.order, (std::vector<uint16_t>{1, 2, 3, 4, 6, 64}));
  EXPECT_EQ(socket->txCount(), 1U);
  EXPECT_EQ(socket->txErrors(), 0U);
}

TEST_F(MrtNotifySocket, tellsTheKernelsListenersOfAWrongVifOverIpv6) {
  KernelEar ear({RTNLGRP_IPV6_MROUTE_R});
  KernelEar otherEar({RTNLGRP_IPV4_MROUTE_R, RTNLGRP_IPV4_MROUTE, RTNLGRP_IPV6_MROUTE});
  const auto socket = openSocket(AddressFamily::kIpv6);
  socket->txMrtNotificationWithIntfId(message<WrongVifMessage>("2001:db8::2", "ff3e::1"), kIntf);

  const std::vector<Heard> heard = ear.all();
  ASSERT_EQ(heard.size(), 1U);
  const Heard& report = heard.front();
  EXPECT_EQ(report.family, RTNL_FAMILY_IP6MR);
  EXPECT_EQ(report.values.at(IP6MRA_CREPORT_MSGTYPE), Bytes{MRT6MSG_WRONGMIF});
  EXPECT_EQ(report.u32(IP6MRA_CREPORT_MIF_ID), 0x00302064U);
  EXPECT_EQ(report.address(IP6MRA_CREPORT_SRC_ADDR), "2001:db8::2");
  EXPECT_EQ(report.address(IP6MRA_CREPORT_DST_ADDR), "ff3e::1");
  EXPECT_EQ(report.u64(kIntfAttribute), kIntf);
  EXPECT_EQ(report.order, (std::vector<uint16_t>{1, 2, 3, 4, 64}));
  EXPECT_TRUE(otherEar.all().empty());
}

TEST_F(MrtNotifySocket, sendsTheWholePacketUpToWhatAnAttributeHolds) {
  KernelEar ear({RTNLGRP_IPV4_MROUTE_R});
  const auto socket = openSocket(AddressFamily::kIpv4);
  const auto whole = message<WholePktMessage>("10.0.0.2", "239.1.1.1");
  for (const unsigned size : {0U, 1U, 27U, 28U, 1500U, 65531U, 65532U, 65535U}) {
    SCOPED_TRACE(size);
    whole->pktIs(packet(size));
    socket->txMrtNotificationWithIntfId(whole, kIntf);
    const auto report = ear.next();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->values.at(IPMRA_CREPORT_MSGTYPE), Bytes{IGMPMSG_WHOLEPKT});
    EXPECT_EQ(report->values.at(IPMRA_CREPORT_PKT), bytesOf(*whole->pkt(), 65531));
    EXPECT_EQ(report->nlmsgLen, report->datagramBytes);
  }
}

TEST_F(MrtNotifySocket, sendsAnEmptyPacketForAMessageWithoutOne) {
  KernelEar ear({RTNLGRP_IPV6_MROUTE_R});
  const auto socket = openSocket(AddressFamily::kIpv6);
  const auto whole = message<WholePktMessage>("2001:db8::2", "ff3e::1");
  socket->txMrtNotificationWithIntfId(whole, kIntf);
  whole->pktIs(Nynet::globalPktManager()->newPkt());
  socket->txMrtNotificationWithIntfId(whole, kIntf);
  const std::vector<Heard> heard = ear.all();
  ASSERT_EQ(heard.size(), 2U);
  EXPECT_TRUE(heard[0].values.at(IP6MRA_CREPORT_PKT).empty());
  EXPECT_TRUE(heard[1].values.at(IP6MRA_CREPORT_PKT).empty());
}

TEST_F(MrtNotifySocket, sendsNothingForAddressesOfAnotherFamily) {
  KernelEar ear({RTNLGRP_IPV4_MROUTE_R, RTNLGRP_IPV6_MROUTE_R});
  const auto socket = openSocket(AddressFamily::kIpv4);
  socket->txMrtNotificationWithIntfId(message<NoCacheMessage>("2001:db8::2", "ff3e::1"), kIntf);
  EXPECT_TRUE(ear.all().empty());
  EXPECT_EQ(socket->txCount(), 0U);
  EXPECT_EQ(socket->txErrors(), 1U);
}

TEST_F(MrtNotifySocket, sendsOnlyWhileTransmissionIsOn) {
  KernelEar ear({RTNLGRP_IPV4_MROUTE_R});
  const auto noCache = message<NoCacheMessage>("10.0.0.2", "239.1.1.1");
  const auto socket = socketIn(NamespaceName::defaultNamespace(), AddressFamily::kIpv4);
  const auto sendAndCount = [&] {
    socket->txMrtNotificationWithIntfId(noCache, kIntf);
    return ear.all().size();
  };
  EXPECT_FALSE(socket->enableTx());
  EXPECT_EQ(sendAndCount(), 0U);
  socket->enableTxIs(true);
  socket->enableTxIs(true);
  EXPECT_TRUE(socket->enableTx());
  EXPECT_EQ(sendAndCount(), 1U);
  socket->enableTxIs(false);
  socket->enableTxIs(false);
  EXPECT_FALSE(socket->enableTx());
  EXPECT_EQ(sendAndCount(), 0U);
  socket->enableTxIs(true);
  EXPECT_EQ(sendAndCount(), 1U);
  EXPECT_EQ(socket->txCount(), 2U);
  EXPECT_EQ(socket->txErrors(), 0U);
}

TEST_F(MrtNotifySocket, keepsItsDescriptorWhenItWasOpenedAtConstruction) {
  KernelEar ear({RTNLGRP_IPV4_MROUTE_R});
  const size_t before = NotifyTest::openDescriptors();
  auto socket = Orp::makePtr<Socket>("Test", NamespaceName::defaultNamespace(), false);
  socket->afIs(AddressFamily::kIpv4);
  EXPECT_EQ(NotifyTest::openDescriptors(), before + 1);
  socket->enableTxIs(true);
  socket->txMrtNotificationWithIntfId(message<NoCacheMessage>("10.0.0.2", "239.1.1.1"), kIntf);
  EXPECT_EQ(ear.all().size(), 1U);
  socket->enableTxIs(false);
  EXPECT_EQ(NotifyTest::openDescriptors(), before + 1);
  socket = nullptr;
  EXPECT_EQ(NotifyTest::openDescriptors(), before);
}

TEST_F(MrtNotifySocket, reachesTheListenersOfANamedNamespaceAlone) {
  const NamedNamespace red;
  KernelEar here({RTNLGRP_IPV4_MROUTE_R});
  const std::string before = NotifyTest::currentNamespace();
  const auto socket = socketIn(NamespaceName(red.name()), AddressFamily::kIpv4);
  std::vector<Heard> heard;
  std::thread([&] {
    NotifyTest::enterNamespace(red.name());
    KernelEar there({RTNLGRP_IPV4_MROUTE_R});
    std::thread([&] {  // a sender that is not in the namespace
      NotifyTest::enterFreshNamespace();
      socket->enableTxIs(true);
      socket->txMrtNotificationWithIntfId(message<NoCacheMessage>("10.0.0.2", "239.1.1.1"), kIntf);
    })
        .join();
    heard = there.all();
  }).join();
  EXPECT_EQ(heard.size(), 1U);
  EXPECT_TRUE(here.all().empty());
  EXPECT_EQ(NotifyTest::currentNamespace(), before);
}

TEST_F(MrtNotifySocket, leavesTheCallersNamespaceAlone) {
  const NamedNamespace red;
  const std::string before = NotifyTest::currentNamespace();
  const auto socket = socketIn(NamespaceName(red.name()), AddressFamily::kIpv4);
  socket->enableTxIs(true);
  EXPECT_EQ(NotifyTest::currentNamespace(), before);
}

TEST_F(MrtNotifySocket, refusesWhatIsNoNamespaceAndLeaksNoDescriptor) {
  const FalseNamespace file(FalseNamespace::Kind::kFile);
  const FalseNamespace directory(FalseNamespace::Kind::kDirectory);
  const FalseNamespace fifo(FalseNamespace::Kind::kFifo);
  const FalseNamespace mounts(FalseNamespace::Kind::kMountNamespace);
  const size_t before = NotifyTest::openDescriptors();
  EXPECT_EQ(errnoOfEnable(NamespaceName("ns-that-does-not-exist")), ENOENT);
  EXPECT_EQ(errnoOfEnable(NamespaceName(file.name())), EINVAL);
  EXPECT_EQ(errnoOfEnable(NamespaceName(directory.name())), EINVAL);
  EXPECT_EQ(errnoOfEnable(NamespaceName(fifo.name())), EINVAL);
  EXPECT_EQ(errnoOfEnable(NamespaceName(mounts.name())), EINVAL);
  EXPECT_EQ(errnoOfEnable(NamespaceName("")), EINVAL);
  EXPECT_EQ(errnoOfEnable(NamespaceName("..")), EINVAL);
  EXPECT_EQ(errnoOfEnable(NamespaceName("../../proc/self/ns/net")), EINVAL);
  EXPECT_EQ(errnoOfEnable(NamespaceName(std::string_view("ns\0x", 4))), EINVAL);
  EXPECT_EQ(NotifyTest::openDescriptors(), before);
}

TEST_F(MrtNotifySocket, saysWhoCouldNotOpenWhat) {
  const auto socket = socketIn(NamespaceName("ns-missing"), AddressFamily::kIpv4);
  try {
    socket->enableTxIs(true);
    ADD_FAILURE() << "opened";
  } catch (const Orp::SystemException& refused) {
    EXPECT_STREQ(refused.what(),
                 "Test: cannot open a netlink socket in network namespace \"ns-missing\": "
                 "No such file or directory");
  }
}

TEST_F(MrtNotifySocket, allocatesNothingPerMessage) {
  KernelEar ear({RTNLGRP_IPV4_MROUTE_R});
  const auto socket = openSocket(AddressFamily::kIpv4);
  const Orp::Ptr<Nynet::MrtMessage> noCache = message<NoCacheMessage>("10.0.0.2", "239.1.1.1");
  const Orp::Ptr<Nynet::MrtMessage> wrongVif = message<WrongVifMessage>("10.0.0.2", "239.1.1.1");
  const auto source = parsed("10.0.0.3");
  const uint64_t slabs = NySlab::stats().liveObjects;
  const uint64_t before = NotifyTest::allocationsOfThisThread();
  for (int i = 0; i < 100; ++i) {
    noCache->sourceIs(source);
    socket->txMrtNotificationWithIntfId(noCache, kIntf);
    socket->txMrtNotificationWithIntfId(wrongVif, kIntf);
  }
  EXPECT_EQ(NotifyTest::allocationsOfThisThread(), before);
  EXPECT_EQ(NySlab::stats().liveObjects, slabs);
  EXPECT_EQ(ear.all().size(), 200U);
}

TEST_F(MrtNotifySocket, isHeardByTheSystemsOwnListener) {
  const NamedNamespace red;
  CacheReportListener listener{NamespaceName(red.name())};
  EXPECT_FALSE(listener.receive(0));
  const auto v4 = socketIn(NamespaceName(red.name()), AddressFamily::kIpv4);
  const auto v6 = socketIn(NamespaceName(red.name()), AddressFamily::kIpv6);
  v4->enableTxIs(true);
  v6->enableTxIs(true);
  const auto whole = message<WholePktMessage>("2001:db8::2", "ff3e::1");
  whole->pktIs(packet(1500));
  v6->txMrtNotificationWithIntfId(whole, kIntf);
  v4->txMrtNotificationWithIntfId(message<NoCacheMessage>("10.0.0.2", "239.1.1.1"), 7);

  const auto first = listener.receive(0);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->af, AddressFamily::kIpv6);
  EXPECT_EQ(first->kind, kKindWholePkt);
  EXPECT_EQ(first->intfId, kIntf);
  EXPECT_EQ(first->table, std::nullopt);
  const auto pkt = std::as_bytes(std::span(whole->pkt()->headData(), 1500));
  EXPECT_TRUE(std::equal(first->pkt.begin(), first->pkt.end(), pkt.begin(), pkt.end()));
  const auto second = listener.receive(0);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->af, AddressFamily::kIpv4);
  EXPECT_EQ(second->kind, kKindNoCache);
  EXPECT_EQ(second->source.stringValue(), "10.0.0.2");
  EXPECT_EQ(second->group.stringValue(), "239.1.1.1");
  EXPECT_EQ(second->vifId, 7U);
  EXPECT_EQ(second->intfId, 7U);
  EXPECT_EQ(second->table, kDefaultTable);
  EXPECT_FALSE(listener.receive(0));
  EXPECT_EQ(listener.overruns(), 0U);
}

// Sends bytes that this system would not.
void sendRaw(const Bytes& bytes) {
  const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  sockaddr_nl to{};
  to.nl_family = AF_NETLINK;
  to.nl_groups = 1U << (RTNLGRP_IPV4_MROUTE_R - 1);
  sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
  close(fd);
}

TEST_F(MrtNotifySocket, isHeardByTheListenerBehindWhatIsNoReport) {
  CacheReportListener listener{NamespaceName::defaultNamespace()};
  sendRaw(Bytes(1, 0xff));
  sendRaw(Bytes(100, 0xff));
  const auto socket = openSocket(AddressFamily::kIpv4);
  socket->txMrtNotificationWithIntfId(message<NoCacheMessage>("10.0.0.2", "239.1.1.1"), 9);
  const auto heard = listener.receive(0);
  ASSERT_TRUE(heard);
  EXPECT_EQ(heard->intfId, 9U);
}

TEST_F(MrtNotifySocket, losesNoCountOfWhatTheListenerMissed) {
  CacheReportListener listener{NamespaceName::defaultNamespace()};
  const auto socket = openSocket(AddressFamily::kIpv4);
  const auto whole = message<WholePktMessage>("10.0.0.2", "239.1.1.1");
  whole->pktIs(packet(65531));
  for (int i = 0; i < 500; ++i) {  // more than any buffer that the listener asks for
    socket->txMrtNotificationWithIntfId(whole, kIntf);
  }
  EXPECT_EQ(socket->txCount(), 500U);
  int received = 0;
  while (listener.receive(0)) {
    ++received;
  }
  EXPECT_GT(received, 0);
  EXPECT_LT(received, 500);
  EXPECT_EQ(listener.overruns(), 1U);
}

}  // namespace
}  // namespace Routing::Multicast::Notify
