#include "Nynet/MrtMessage.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <thread>
#include <vector>

namespace Nynet {
namespace {

class Message : public MrtMessage {
 public:
  uint8_t kind() const noexcept override { return 1; }
};

IpGenAddr numbered(uint32_t number) {
  return IpGenAddr(IpAddr(htonl(number)));
}

TEST(MrtMessage, readsBackItsFields) {
  const auto message = Orp::makePtr<Message>();
  message->sourceIs(numbered(1));
  message->groupIs(numbered(2));
  EXPECT_EQ(message->source(), numbered(1));
  EXPECT_EQ(message->group(), numbered(2));
  EXPECT_EQ(message->attachedPkt(), nullptr);
}

TEST(MrtMessage, showsNoThreadTheFieldsOfAnother) {
  constexpr unsigned kThreads = 8;
  constexpr uint32_t kRounds = 200;
  const auto message = Orp::makePtr<Message>();
  std::barrier round(kThreads);
  std::vector<std::thread> threads;
  std::atomic<unsigned> mixed = 0;
  for (unsigned thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (uint32_t i = 0; i < kRounds; ++i) {
        const uint32_t mine = i * kThreads + thread;
        message->sourceIs(numbered(mine));
        message->groupIs(numbered(~mine));
        round.arrive_and_wait();  // every thread has written, none has read
        mixed += message->source() != numbered(mine) || message->group() != numbered(~mine);
        round.arrive_and_wait();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(mixed, 0U);
}

}  // namespace
}  // namespace Nynet
