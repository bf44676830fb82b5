#include "Bess/Eal.h"

#include <gtest/gtest.h>
#include <rte_lcore.h>
#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>
#include <vector>

#include "Bess/Cores.h"
#include "Bess/PacketPool.h"
#include "Bess/Worker.h"

namespace {

bool contains(const std::vector<std::string>& args, const std::string& arg) {
  return std::find(args.begin(), args.end(), arg) != args.end();
}

TEST(EalTest, asksForWhatTheOptionsSay) {
  const auto plain = bess::ealArguments({});
  EXPECT_TRUE(contains(plain, "--no-huge"));
  EXPECT_TRUE(contains(plain, "--no-pci"));
  EXPECT_FALSE(contains(plain, "--in-memory"));
  const auto real =
      bess::ealArguments({.hugePages = true, .memoryMb = 64, .pci = true, .extra = {"--foo"}});
  EXPECT_FALSE(contains(real, "--no-huge"));
  EXPECT_FALSE(contains(real, "--no-pci"));
  EXPECT_TRUE(contains(real, "--in-memory"));
  EXPECT_TRUE(contains(real, "64"));
  EXPECT_EQ(real.back(), "--foo");
}

TEST(EalTest, startsOnceAndLeavesTheMainThreadItsCores) {
  EXPECT_FALSE(bess::ealRunning());
  EXPECT_THROW(launchWorker(0), std::system_error);
  bess::initEal({.memoryMb = 64, .extra = {"--log-level=lib.eal:4"}});
  EXPECT_TRUE(bess::ealRunning());
  try {
    bess::initEal({});
    FAIL() << "started twice";
  } catch (const std::system_error& e) {
    EXPECT_EQ(e.code().value(), EALREADY);
  }
  cpu_set_t set;
  ASSERT_EQ(sched_getaffinity(0, sizeof(set), &set), 0);
  EXPECT_TRUE(CPU_EQUAL(&set, &bess::usableCoreSet()));
  EXPECT_NE(bess::ealVersion().find("DPDK"), std::string::npos);

  bess::PacketPool::createDefaultPools(2048);
  launchWorker(0);
  destroyWorker(0);
  bess::PacketPtr pkt(bess::PacketPool::defaultPool()->alloc());
  EXPECT_NE(pkt, nullptr);
  pkt.reset();
  bess::PacketPool::destroyDefaultPools();
  bess::cleanupEal();
}

}  // namespace
