# The multicast module. Its objects are linked by the plug-in and by its tests.
sfe_library(mfib_core OBJECT
  SOURCES AddressText.cpp BessPktCache.cpp HeldKeys.cpp MfibAlerts.cpp MfibBatch.cpp MfibCounters.cpp MfibExplain.cpp MfibForward.cpp
          MfibIntfs.cpp MfibLifecycle.cpp MfibMetrics.cpp MfibRegistration.cpp MfibRoutes.cpp MfibStates.cpp
          MfibTasks.cpp MfibTypes.cpp MrouteDump.cpp NoCachePacketManager.cpp PacketFates.cpp
  DEPS bess sfe mcast_notify mcast_fib nynet orp protocol sfe_ht sfe_fuse PkgConfig::GLOG PkgConfig::DPDK PkgConfig::URCU)

# A plug-in that is unloaded goes away: no symbol of it may be unique in the process.
target_compile_options(mfib_core PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
# The packet path adds to counts that lie side by side: one by one is faster than as a vector that is put together first.
target_compile_options(mfib_core PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fno-tree-slp-vectorize>)

add_library(Mfib MODULE PluginVersion.cpp $<TARGET_OBJECTS:mfib_core>)
target_compile_definitions(Mfib PRIVATE SFE_VERSION="${PROJECT_VERSION}")
target_link_libraries(Mfib PRIVATE mfib_core)
install(TARGETS Mfib LIBRARY DESTINATION ${SFE_PLUGIN_DIRECTORY})

if(SFE_TESTS)
  sfe_library(mfib_testing STATIC
    SOURCES MfibPacketCases.cpp MfibPacketCasesEncap.cpp MfibPacketCasesRoutes.cpp Testing/MfibFixture.cpp
            Testing/PacketBuilder.cpp Testing/PacketFixture.cpp
    DEPS mfib_core gtest)
  # Each test file is a program of its own.
  foreach(unit FanOut PacketPath PacketStress WildcardOff)
    sfe_test(Mfib${unit}Test EAL SOURCES Mfib${unit}Test.cpp DEPS mfib_testing mfib_core)
  endforeach()
  # The unresolved cache and the copies that it keeps.
  sfe_test(MfibCacheTest EAL
    SOURCES BessPktCacheTest.cpp NoCachePacketManagerStressTest.cpp NoCachePacketManagerTest.cpp
    DEPS mfib_core)
  # Tasks, counters and alerts of an instance.
  sfe_test(MfibRuntimeTest EAL
    SOURCES MfibAlertsTest.cpp MfibCountersTest.cpp MfibResolutionTest.cpp MfibTasksTest.cpp
    DEPS mfib_testing mfib_core PkgConfig::FUSE)
  # What an instance shows of its inside.
  sfe_test(MfibStatesTest EAL
    SOURCES AddressTextTest.cpp MfibExplainTest.cpp MfibMetricsTest.cpp MfibStatesTest.cpp
    DEPS mfib_testing mfib_core)
  # What the control plane does with an instance.
  sfe_test(MfibControlTest EAL
    SOURCES MfibIntfsTest.cpp MfibLifecycleTest.cpp MfibRegistrationTest.cpp MfibRoutesTest.cpp
            MrouteDumpTest.cpp RouteWalkTest.cpp WayNumbersTest.cpp
    DEPS mfib_testing mfib_core PkgConfig::FUSE)
endif()

if(SFE_TESTS)  # it looks inside through the tests' eyes
  sfe_benchmark(MrouteDumpBenchmark SOURCES MrouteDumpBenchmark.cpp DEPS mfib_core gtest)
endif()
