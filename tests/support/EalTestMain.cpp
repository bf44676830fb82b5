// The main of every test program that needs DPDK: memory of its own, no huge pages, no devices.

#include <gtest/gtest.h>
#include <rte_eal.h>
#include <urcu-qsbr.h>

#include <array>
#include <cstdio>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  std::array<const char*, 11> args = {
      "test",           "--no-huge",      "--no-pci",   "--no-shconf",           "-m",   "512",
      "--iova-mode=va", "--no-telemetry", "--lcores=0", "--log-level=lib.eal:4", nullptr};
  if (rte_eal_init(static_cast<int>(args.size() - 1), const_cast<char**>(args.data())) < 0) {
    std::fprintf(stderr, "DPDK does not start\n");
    return 1;
  }
  // Every thread that touches an RCU table is a registered reader, the test's own included.
  urcu_qsbr_register_thread();
  const int result = RUN_ALL_TESTS();
  // What waits for a grace period is freed before leaks are looked for.
  urcu_qsbr_barrier();
  urcu_qsbr_unregister_thread();
  return result;
}
