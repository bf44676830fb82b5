# What ThreadSanitizer must know in every program that uses RCU; empty without it.
add_library(sfe_tsan INTERFACE)
if(SFE_SANITIZE MATCHES thread)
  target_sources(sfe_tsan INTERFACE ${PROJECT_SOURCE_DIR}/tests/support/TsanSuppressions.cpp)
endif()

# The RCU hash table and its node memory: headers only, but for the counts of callbacks.
add_library(sfe_ht INTERFACE)
target_include_directories(sfe_ht INTERFACE ${PROJECT_SOURCE_DIR})
target_link_libraries(sfe_ht INTERFACE sfe_tsan orp PkgConfig::DPDK PkgConfig::URCU)

sfe_test(CrcHashTest SOURCES CrcHashTest.cpp DEPS sfe_ht)
sfe_test(RteAllocatorTest SOURCES RteAllocatorTest.cpp DEPS sfe_ht EAL)
sfe_test(NyUrcuHtTest SOURCES NyUrcuHtTest.cpp NyUrcuHtIndexTest.cpp DEPS sfe_ht EAL)
sfe_test(NyUrcuHtStressTest SOURCES NyUrcuHtStressTest.cpp DEPS sfe_ht EAL)
sfe_benchmark(NyUrcuHtBenchmark SOURCES NyUrcuHtBenchmark.cpp DEPS sfe_ht)
