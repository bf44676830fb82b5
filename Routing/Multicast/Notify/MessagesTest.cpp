#include "Routing/Multicast/Notify/Messages.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace Routing::Multicast::Notify {
namespace {

// A packet that tells when it dies.
class WatchedPkt : public Nynet::Pkt {
 public:
  explicit WatchedPkt(std::atomic<int>& alive) : alive_(alive) { ++alive_; }

 protected:
  ~WatchedPkt() override { --alive_; }

 private:
  std::atomic<int>& alive_;
};

TEST(Messages, areOfTheKernelsKinds) {
  EXPECT_EQ(Orp::makePtr<NoCacheMessage>()->kind(), 1);
  EXPECT_EQ(Orp::makePtr<WrongVifMessage>()->kind(), 2);
  EXPECT_EQ(Orp::makePtr<WholePktMessage>()->kind(), 3);
}

TEST(WholePktMessage, dropsItsPacketForAnother) {
  std::atomic<int> alive = 0;
  const auto message = Orp::makePtr<WholePktMessage>();
  EXPECT_EQ(message->pkt(), nullptr);
  message->pktIs(Orp::makePtr<WatchedPkt>(alive));
  EXPECT_EQ(alive, 1);
  const auto second = Orp::makePtr<WatchedPkt>(alive);
  message->pktIs(second);
  EXPECT_EQ(alive, 1);
  EXPECT_EQ(message->pkt(), second);
  EXPECT_EQ(message->attachedPkt(), second.get());
  message->pktIs(nullptr);
  EXPECT_EQ(message->attachedPkt(), nullptr);
  EXPECT_EQ(alive, 1);  // the test's own reference
}

TEST(WholePktMessage, keepsThePacketThatItAlreadyHas) {
  std::atomic<int> alive = 0;
  const auto message = Orp::makePtr<WholePktMessage>();
  message->pktIs(Orp::makePtr<WatchedPkt>(alive));
  message->pktIs(message->pkt());
  EXPECT_EQ(alive, 1);
  EXPECT_NE(message->attachedPkt(), nullptr);
}

TEST(WholePktMessage, dropsThePacketsOfAllThreadsWhenItDies) {
  std::atomic<int> alive = 0;
  auto message = Orp::makePtr<WholePktMessage>();
  message->pktIs(Orp::makePtr<WatchedPkt>(alive));
  std::thread other([&] {
    EXPECT_EQ(message->pkt(), nullptr);
    message->pktIs(Orp::makePtr<WatchedPkt>(alive));
  });
  other.join();
  EXPECT_EQ(alive, 2);
  message = nullptr;
  EXPECT_EQ(alive, 0);
}

}  // namespace
}  // namespace Routing::Multicast::Notify
