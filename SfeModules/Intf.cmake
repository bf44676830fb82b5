# The interface edge modules: a library for the plug-in and the tests, and the plug-in.
sfe_library(sfe_intf_core STATIC
  SOURCES IntfFrame.cpp IntfIn.cpp IntfOut.cpp IntfTable.cpp PacketBuffer.cpp
  DEPS bess nynet protocol PkgConfig::DPDK)

add_library(SfeIntf MODULE IntfPlugin.cpp PluginVersion.cpp)
target_compile_definitions(SfeIntf PRIVATE SFE_VERSION="${PROJECT_VERSION}")
target_link_libraries(SfeIntf PRIVATE sfe_intf_core)
install(TARGETS SfeIntf LIBRARY DESTINATION ${SFE_PLUGIN_DIRECTORY})

sfe_test(intf_test EAL
  SOURCES ForwardingMetadataTest.cpp IntfFrameTest.cpp IntfInTest.cpp IntfOutTest.cpp IntfTableTest.cpp
  DEPS sfe_intf_core)
