// What holds while several threads use one socket and one message object.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstring>
#include <thread>
#include <vector>

#include "Routing/Multicast/Notify/Messages.h"
#include "Routing/Multicast/Notify/MrtNotifySocket.h"
#include "Routing/Multicast/Notify/NotifyTestSupport.h"

namespace Routing::Multicast::Notify {
namespace {

using NotifyTest::Bytes;
using NotifyTest::Heard;
using NotifyTest::KernelEar;
using Nynet::AddressFamily;
using Nynet::NamespaceName;

// The kernel's names for these are in headers that clash with the C library's.
constexpr uint16_t kSource = 3, kGroup = 4, kPkt = 5, kIntf = 64;

Nynet::IpGenAddr numbered(uint32_t number) {
  return Nynet::IpGenAddr(Nynet::IpAddr(htonl(number)));
}

uint32_t numberIn(const Bytes& address) {
  uint32_t number = 0;
  std::memcpy(&number, address.data(), sizeof(number));
  return ntohl(number);
}

class MrtNotifySocketThreads : public testing::Test {
 protected:
  void SetUp() override {
    if (!NotifyTest::enterFreshNamespace()) {
      GTEST_SKIP() << "needs root";
    }
    socket_ =
        Orp::makePtr<MrtNotifyNetlinkSocketPam>("Test", NamespaceName::defaultNamespace(), true);
    socket_->afIs(AddressFamily::kIpv4);
    socket_->enableTxIs(true);
  }

  Orp::Ptr<MrtNotifyNetlinkSocketPam> socket_;
};

TEST_F(MrtNotifySocketThreads, neverMixTheirValuesInOneSharedMessage) {
  constexpr unsigned kThreads = 3;
  constexpr uint32_t kEach = 300;
  KernelEar ear({RTNLGRP_IPV4_MROUTE_R});
  const auto message = Orp::makePtr<WholePktMessage>();
  std::barrier together(kThreads);
  std::vector<std::thread> threads;
  for (unsigned thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (uint32_t i = 0; i < kEach; ++i) {
        const uint32_t number = i * kThreads + thread;
        message->sourceIs(numbered(number));
        message->groupIs(numbered(~number));
        auto pkt = Nynet::globalPktManager()->newPkt();
        std::memcpy(pkt->newSharedHeadData(sizeof(number)), &number, sizeof(number));
        message->pktIs(std::move(pkt));
        together.arrive_and_wait();  // every thread has filled the message, none has sent it
        socket_->txMrtNotificationWithIntfId(message, number);
        together.arrive_and_wait();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::vector<bool> seen(kThreads * kEach);
  for (const Heard& heard : ear.all()) {
    const uint64_t number = heard.u64(kIntf);
    ASSERT_LT(number, seen.size());
    EXPECT_FALSE(seen[number]);
    seen[number] = true;
    EXPECT_EQ(numberIn(heard.values.at(kSource)), number);
    EXPECT_EQ(numberIn(heard.values.at(kGroup)), static_cast<uint32_t>(~number));
    uint32_t inPacket = 0;
    ASSERT_EQ(heard.values.at(kPkt).size(), sizeof(inPacket));
    std::memcpy(&inPacket, heard.values.at(kPkt).data(), sizeof(inPacket));
    EXPECT_EQ(inPacket, number);
  }
  EXPECT_EQ(std::count(seen.begin(), seen.end(), true), std::ptrdiff_t{kThreads * kEach});
  EXPECT_EQ(socket_->txCount(), uint64_t{kThreads * kEach});
}

// Threads that each make as many calls as they are told to, as fast as they can.
class Senders {
 public:
  Senders(unsigned count, const Orp::Ptr<MrtNotifyNetlinkSocketPam>& socket) : made_(count) {
    for (unsigned sender = 0; sender < count; ++sender) {
      threads_.emplace_back([this, sender, socket] { run(sender, *socket); });
    }
  }
  Senders(const Senders&) = delete;
  Senders& operator=(const Senders&) = delete;
  ~Senders() {
    told_ = kStop;
    told_.notify_all();
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }

  // Lets every thread make `calls` more.
  void start(uint64_t calls) {
    told_ += calls;
    told_.notify_all();
  }
  // Returns when all threads have made what they were told to but for `left` calls.
  void waitUntilLeft(uint64_t left) const {
    for (const std::atomic<uint64_t>& made : made_) {
      for (uint64_t now = made; now + left < told_; now = made) {
        made.wait(now);
      }
    }
  }

 private:
  static constexpr uint64_t kStop = ~uint64_t{0};

  void run(unsigned sender, MrtNotifyNetlinkSocketPam& socket) {
    std::atomic<uint64_t>& made = made_[sender];
    for (uint64_t told = told_; told != kStop; told = told_) {
      if (made == told) {
        told_.wait(told);
        continue;
      }
      message_->sourceIs(numbered(sender));
      message_->groupIs(numbered(0xef010101));
      socket.txMrtNotificationWithIntfId(message_, sender);
      ++made;
      made.notify_all();
    }
  }

  const Orp::Ptr<NoCacheMessage> message_ = Orp::makePtr<NoCacheMessage>();
  std::atomic<uint64_t> told_{0};
  std::vector<std::atomic<uint64_t>> made_;
  std::vector<std::thread> threads_;
};

TEST_F(MrtNotifySocketThreads, letNothingLeaveAfterTransmissionWasSwitchedOff) {
  KernelEar ear({RTNLGRP_IPV4_MROUTE_R});
  Senders senders(3, socket_);
  for (int round = 0; round < 100; ++round) {
    SCOPED_TRACE(round);
    senders.start(100);
    senders.waitUntilLeft(90);
    socket_->enableTxIs(false);
    const uint64_t sent = socket_->txCount();
    ear.all();
    // The number of the closed descriptor now belongs to a socket that would pass messages on.
    const int successor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    ASSERT_GE(successor, 0);
    senders.start(10);
    senders.waitUntilLeft(0);
    EXPECT_TRUE(ear.all().empty());
    EXPECT_EQ(socket_->txCount(), sent);
    close(successor);
    socket_->enableTxIs(true);
  }
  EXPECT_GT(socket_->txCount(), 0U);
  EXPECT_EQ(socket_->txErrors(), 0U);  // a send on a closed descriptor would be one
}

// A message that keeps its sender inside the send until transmission is being switched off, and
// gives the thread that does so every chance to be done too early.
class LingeringMessage : public Nynet::MrtMessage {
 public:
  explicit LingeringMessage(const MrtNotifyNetlinkSocketPam& socket) : socket_(socket) {}

  uint8_t kind() const noexcept override {
    inside_ = true;
    inside_.notify_all();
    while (socket_.enableTx()) {
      std::this_thread::yield();
    }
    for (int chance = 0; chance < 1000 && !switchedOff_; ++chance) {
      std::this_thread::yield();
    }
    return 1;
  }

  void waitForSender() const { inside_.wait(false); }
  void hasBeenSwitchedOff() { switchedOff_ = true; }

 private:
  const MrtNotifyNetlinkSocketPam& socket_;
  mutable std::atomic<bool> inside_{false};
  std::atomic<bool> switchedOff_{false};
};

TEST_F(MrtNotifySocketThreads, switchOffOnlyWhenTheSenderInsideIsDone) {
  KernelEar ear({RTNLGRP_IPV4_MROUTE_R});
  const auto message = Orp::makePtr<LingeringMessage>(*socket_);
  std::thread sender([&] {
    message->sourceIs(numbered(1));
    message->groupIs(numbered(0xef010101));
    socket_->txMrtNotificationWithIntfId(message, 1);
  });
  message->waitForSender();
  socket_->enableTxIs(false);
  const uint64_t sent = socket_->txCount();
  const size_t heard = ear.all().size();
  message->hasBeenSwitchedOff();
  sender.join();
  EXPECT_EQ(sent, 1U);
  EXPECT_EQ(heard, 1U);
  EXPECT_EQ(socket_->txCount(), 1U);
  EXPECT_EQ(socket_->txErrors(), 0U);
}

TEST_F(MrtNotifySocketThreads, maySwitchFromSeveralAtOnce) {
  const size_t before = NotifyTest::openDescriptors();
  {
    Senders senders(2, socket_);
    senders.start(2000);
    std::vector<std::thread> switchers;
    for (int switcher = 0; switcher < 2; ++switcher) {
      switchers.emplace_back([&] {
        for (int i = 0; i < 200; ++i) {
          socket_->enableTxIs(i % 2 == 0);
        }
      });
    }
    for (std::thread& thread : switchers) {
      thread.join();
    }
    senders.waitUntilLeft(0);
  }
  socket_->enableTxIs(true);
  EXPECT_EQ(NotifyTest::openDescriptors(), before);
  EXPECT_EQ(socket_->txErrors(), 0U);
}

}  // namespace
}  // namespace Routing::Multicast::Notify
