// Ports on real kernel interfaces: a veth pair in a network namespace of the test's own, which goes
// with the process.

#include <gtest/gtest.h>
#include <rte_ethdev.h>
#include <sched.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "Bess/Port.h"
#include "Bess/Testing/ModuleHarness.h"

namespace bess {
namespace {

using testing::contents;

bool enterOwnNamespace() {
  static const bool kDone = unshare(CLONE_NEWNET) == 0;
  return kDone;
}

class PortVeth : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!enterOwnNamespace()) {
      GTEST_SKIP() << "no right to make a network namespace";
    }
    ASSERT_EQ(
        std::system(
            "ip link add va type veth peer name vb && ip link set va up && ip link set vb up"),
        0);
  }
  void TearDown() override {
    if (!IsSkipped()) {
      EXPECT_EQ(std::system("ip link del va"), 0);
    }
  }

  static std::unique_ptr<Port> open(const std::string& devargs,
                                    std::optional<uint16_t> mtu = std::nullopt) {
    PortConfig config;
    config.name = "p";
    config.devargs = devargs;
    config.mtu = mtu;
    return Port::open(config);
  }

  // The next frame of the test's own EtherType; the kernel sends frames of its own through a veth.
  static PacketPtr receive(Port& port) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
      Packet* pkt = nullptr;
      if (port.receive(0, &pkt, 1) == 1) {
        PacketPtr received(pkt);
        if (contents(pkt).find("\x88\xb5") != std::string::npos) {
          return received;
        }
      }
    }
    return nullptr;
  }

  void expectArrives(Port& from, Port& to, const std::string& frame) {
    Packet* pkt = harness_.packet(frame).release();
    ASSERT_EQ(from.send(0, &pkt, 1), 1);
    PacketPtr received = receive(to);
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(contents(received.get()), frame);
  }

  static inline const std::string kGroup{"\x01\x00\x5e\x01\x01\x01\x02\x00\x00\x00\x00\x05", 12};
  testing::ModuleHarness harness_;
};

TEST_F(PortVeth, leavesNoSocketToAProgramThatTheProcessStarts) {
  const auto port = open("net_af_packet0,iface=va");
  // The program that is started now looks whether a descriptor of its own is a packet socket.
  const int inherited = std::system(
      "for fd in /proc/self/fd/*; do readlink $fd; done | sed -n 's/socket:.\\([0-9]*\\)./\\1/p' | "
      "while read inode; do if grep -q \" $inode *$\" /proc/net/packet; then exit 1; fi; done");
  EXPECT_EQ(inherited, 0);
}

TEST_F(PortVeth, carriesFramesAsOnTheWire) {
  auto a = open("net_af_packet0,iface=va");
  auto b = open("net_af_packet1,iface=vb");
  expectArrives(*a, *b, kGroup + "\x88\xb5" + std::string(50, 'x'));
  // The kernel takes the tag out of the frame; the port puts it back.
  expectArrives(*b, *a,
                kGroup + std::string("\x81\x00\x20\x64", 4) + "\x88\xb5" + std::string(50, 'y'));
  EXPECT_GE(a->counters().txPackets, 1U);
  EXPECT_GE(b->counters().rxPackets, 1U);
}

TEST_F(PortVeth, followsTheLink) {
  auto a = open("net_af_packet0,iface=va");
  EXPECT_EQ(a->status().driver, "net_af_packet");
  EXPECT_TRUE(a->status().linkUp);
  EXPECT_NE(a->status().mac, (std::array<uint8_t, 6>{}));
}

TEST_F(PortVeth, carriesLargeFrames) {
  auto a = open("net_af_packet0,iface=va", 9000);
  auto b = open("net_af_packet1,iface=vb", 9000);
  std::string frame = kGroup + "\x88\xb5" + std::string(8900, 'z');
  std::string_view rest = frame;
  PacketPtr pkt = harness_.packet(rest.substr(0, 2000));
  for (rest.remove_prefix(2000); !rest.empty();
       rest.remove_prefix(std::min<size_t>(2000, rest.size()))) {
    rte_pktmbuf_chain(pkt->mbuf(), harness_.packet(rest.substr(0, 2000)).release()->mbuf());
  }
  Packet* sent = pkt.release();
  ASSERT_EQ(a->send(0, &sent, 1), 1);
  PacketPtr received = receive(*b);
  ASSERT_NE(received, nullptr);
  EXPECT_EQ(contents(received.get()), frame);
}

TEST_F(PortVeth, opensTwoQueues) {
  PortConfig config;
  config.name = "p";
  config.devargs = "net_af_packet0,iface=va,qpairs=2";
  config.rxQueues = 2;
  config.txQueues = 2;
  auto port = Port::open(config);
  Packet* pkt = harness_.packet(kGroup + "\x88\xb5" + std::string(50, 'x')).release();
  EXPECT_EQ(port->send(port->txQueueOf(0), &pkt, 1), 1);
  pkt = harness_.packet(kGroup + "\x88\xb5" + std::string(50, 'x')).release();
  EXPECT_EQ(port->send(port->txQueueOf(1), &pkt, 1), 1);
}

}  // namespace
}  // namespace bess
