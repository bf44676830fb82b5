# The state file system; its state is process-wide, so a process has one copy: libMfib.so's.
sfe_library(sfe_fuse STATIC
  SOURCES Fuse.cpp
  DEPS orp sfe_tsan
  PRIVATE_DEPS PkgConfig::FUSE PkgConfig::URCU PkgConfig::GLOG ${CMAKE_DL_LIBS} Threads::Threads)

sfe_test(FuseTest
  SOURCES FuseTest.cpp
  DEPS sfe_fuse orp PkgConfig::FUSE PkgConfig::URCU)

if(SFE_TESTS)
  add_library(FuseTestPlugin MODULE FuseTestPlugin.cpp)
  target_link_libraries(FuseTestPlugin PRIVATE sfe_fuse)
endif()
sfe_test(FuseMountTest SOURCES FuseMountTest.cpp DEPS sfe_fuse orp ${CMAKE_DL_LIBS})
if(TARGET FuseMountTest)
  add_dependencies(FuseMountTest FuseTestPlugin)
  target_compile_definitions(FuseMountTest PRIVATE FUSE_TEST_PLUGIN="$<TARGET_FILE:FuseTestPlugin>")
endif()
