#include "Base/Orp/Ptr.h"

#include <gtest/gtest.h>

#include <thread>
#include <unordered_set>
#include <vector>

#include "Base/NySlab/NySlab.h"

namespace Orp {
namespace {

class Counted : public PtrInterface {
 public:
  explicit Counted(int& alive) : alive_(alive) { ++alive_; }
  ~Counted() override { --alive_; }
  int value = 7;

 private:
  int& alive_;
};

class Special : public Counted {
 public:
  using Counted::Counted;
};

// Each test runs with plain and with atomic counts.
class PtrTest : public testing::TestWithParam<bool> {
 protected:
  PtrTest() { VFPtrInterface::threadSafePointers_ = GetParam(); }
  ~PtrTest() override { VFPtrInterface::threadSafePointers_ = true; }
  int alive_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Counts, PtrTest, testing::Bool());

TEST_P(PtrTest, deletesTheObjectWithItsLastHandle) {
  Ptr<Counted> a = makePtr<Counted>(alive_);
  {
    const Ptr<Counted> b = a;
    a.reset();
    EXPECT_EQ(alive_, 1);
    EXPECT_EQ(b->value, 7);
  }
  EXPECT_EQ(alive_, 0);
}

TEST_P(PtrTest, movesWithoutCounting) {
  Ptr<Counted> a = makePtr<Counted>(alive_);
  const Ptr<Counted> b = std::move(a);
  EXPECT_FALSE(a);  // NOLINT(bugprone-use-after-move): what a move leaves is part of the contract
  EXPECT_TRUE(b);
  EXPECT_EQ(alive_, 1);
}

TEST_P(PtrTest, convertsToABaseAndCastsBack) {
  Ptr<PtrInterface> base = makePtr<Special>(alive_);
  EXPECT_EQ(ptrCast<Special>(base), base);
  EXPECT_EQ(ptrCast<Special>(Ptr<Counted>(makePtr<Counted>(alive_))), nullptr);
  EXPECT_EQ(ptrCast<Special>(Ptr<Counted>()), nullptr);
  base = nullptr;
  EXPECT_EQ(alive_, 0);
}

TEST_P(PtrTest, survivesAssignmentToItself) {
  Ptr<Counted> a = makePtr<Counted>(alive_);
  const Ptr<Counted>& same = a;
  a = same;
  EXPECT_EQ(alive_, 1);
  a.reset(a.get());
  EXPECT_EQ(alive_, 1);
}

TEST_P(PtrTest, freesTheReplacedObject) {
  Ptr<Counted> a = makePtr<Counted>(alive_);
  a = makePtr<Counted>(alive_);
  EXPECT_EQ(alive_, 1);
}

TEST_P(PtrTest, countsHandReferences) {
  const Ptr<Counted> owner = makePtr<Counted>(alive_);
  const Counted* raw = owner.get();
  {
    Ptr<Counted> handle = owner;
    EXPECT_EQ(handle.detach(), raw);
    EXPECT_EQ(handle, nullptr);
  }
  EXPECT_EQ(alive_, 1);
  raw->releaseRef();
  EXPECT_EQ(alive_, 1);
}

TEST_P(PtrTest, keepsTheNotificationFlag) {
  const Ptr<Counted> a = makePtr<Counted>(alive_);
  EXPECT_FALSE(a->hasNotificationActive());
  a->hasNotificationActiveIs(true);
  EXPECT_TRUE(a->hasNotificationActive());
}

TEST_P(PtrTest, hashesByIdentity) {
  const Ptr<Counted> a = makePtr<Counted>(alive_);
  const std::unordered_set<Ptr<Counted>> set = {a, a, makePtr<Counted>(alive_)};
  EXPECT_EQ(set.size(), 2u);
  EXPECT_TRUE(set.contains(a));
}

TEST(Ptr, countsExactlyUnderThreads) {
  int alive = 0;
  constexpr int kRounds = 20000;
  {
    const Ptr<Counted> shared = makePtr<Counted>(alive);
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([shared] {
        for (int i = 0; i < kRounds; ++i) {
          const Ptr<Counted> mine = shared;
          ASSERT_EQ(mine->value, 7);
        }
      });
    }
    threads.clear();
    EXPECT_EQ(alive, 1);
  }
  EXPECT_EQ(alive, 0);
}

class Slabbed : public PtrInterface, public NySlab::SlabObject {
 public:
  char payload[200] = {};
};

TEST(Ptr, usesTheClassesOwnMemory) {
  const uint64_t before = NySlab::stats().liveObjects;
  Ptr<PtrInterface> p = makePtr<Slabbed>();
  EXPECT_EQ(NySlab::stats().liveObjects, before + 1);
  p = nullptr;
  EXPECT_EQ(NySlab::stats().liveObjects, before);
}

}  // namespace
}  // namespace Orp
