# One place for the language level, the warnings, the packages and the shape of a target.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

include(GNUInstallDirs)
# The libraries are nobody else's, so they lie apart; so do the plug-ins.
set(SFE_LIBRARY_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/sfe)
set(SFE_PLUGIN_DIRECTORY ${SFE_LIBRARY_DIRECTORY}/modules)
set(CMAKE_INSTALL_RPATH ${SFE_LIBRARY_DIRECTORY})

option(SFE_TESTS "Build the tests" ON)
option(SFE_BENCH "Build the benchmarks" ON)
option(SFE_HARDENING "Build as the package is to be: stack protector, checked library calls, read-only relocations" OFF)
set(SFE_SANITIZE "" CACHE STRING "Sanitizers for every target, as -fsanitize= takes them")

add_compile_options(-Wall -Wextra -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align
                    -Wformat=2 -Wimplicit-fallthrough -Wvla -Werror)
add_compile_definitions(_GNU_SOURCE)
# Nobody replaces a function of a library from outside, so a library may inline its own.
add_compile_options($<$<CXX_COMPILER_ID:GNU>:-fno-semantic-interposition>)
if(SFE_HARDENING)
  add_compile_options(-fstack-protector-strong -Werror=format-security $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  add_link_options(-Wl,-z,relro,-z,now)
endif()
if(SFE_SANITIZE)
  add_compile_options(-fsanitize=${SFE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${SFE_SANITIZE})
  if(SFE_SANITIZE MATCHES undefined)
    # This check needs free file descriptors, which a test takes away.
    add_compile_options(-fno-sanitize=vptr)
  endif()
endif()

# Every program of sfe_test labelled unit: what a sanitizer build builds.
add_custom_target(unit_tests)
# Where each test program leaves its own report, for tools/summary.
set(SFE_TEST_REPORTS ${CMAKE_BINARY_DIR}/reports)
# How a test program is started: ThreadSanitizer needs memory where it expects it, without address randomisation.
set(SFE_TEST_LAUNCHER "")
if(SFE_SANITIZE MATCHES thread)
  set(SFE_TEST_LAUNCHER setarch -R)
endif()

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(Protobuf REQUIRED)
pkg_check_modules(DPDK REQUIRED IMPORTED_TARGET libdpdk)
pkg_check_modules(URCU REQUIRED IMPORTED_TARGET liburcu-qsbr liburcu-cds)
pkg_check_modules(GLOG REQUIRED IMPORTED_TARGET libglog)
pkg_check_modules(MNL REQUIRED IMPORTED_TARGET libmnl)
pkg_check_modules(FUSE REQUIRED IMPORTED_TARGET fuse)
pkg_check_modules(GRPCPP REQUIRED IMPORTED_TARGET grpc++)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
pkg_check_modules(YAMLCPP REQUIRED IMPORTED_TARGET yaml-cpp)

# Headers of packages are system headers: their warnings are not ours.
foreach(package DPDK URCU GLOG MNL FUSE GRPCPP SYSTEMD YAMLCPP)
  get_target_property(dirs PkgConfig::${package} INTERFACE_INCLUDE_DIRECTORIES)
  if(dirs)
    set_target_properties(PkgConfig::${package} PROPERTIES INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${dirs}")
  endif()
endforeach()

# sfe_library(NAME [STATIC|SHARED|OBJECT] SOURCES ... [DEPS ...] [PRIVATE_DEPS ...])
# A library of one room. Shared by default: the daemon and its plug-ins use one copy of every process-wide object.
function(sfe_library name)
  cmake_parse_arguments(ARG "STATIC;OBJECT" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  set(kind SHARED)
  if(ARG_STATIC)
    set(kind STATIC)
  elseif(ARG_OBJECT)
    set(kind OBJECT)
  endif()
  add_library(${name} ${kind} ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  if(kind STREQUAL SHARED)
    install(TARGETS ${name} LIBRARY DESTINATION ${SFE_LIBRARY_DIRECTORY})
  endif()
endfunction()

# Programs of one thread, and those whose threads are gRPC's, which is not instrumented: the thread sanitizer has
# nothing to say about either.
set(SFE_NOT_FOR_THREAD_SANITIZER
    CrcHashTest MfibPacketPathTest MfibPacketStressTest MfibStatesTest MfibWildcardOffTest bess_eal_test intf_test
    mcast_fib_test nynet_test sfe_layout_test
    bessd_test control_service_test control_socket_test sfectl_cli_test sfectl_config_test sfectl_text_test)

# sfe_test(NAME SOURCES ... DEPS ... [EAL] [LABELS ...] [TIMEOUT seconds])
# One GoogleTest program, one CTest entry. EAL: its main starts DPDK without huge pages and without devices.
function(sfe_test name)
  if(NOT SFE_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "EAL" "TIMEOUT" "SOURCES;DEPS;LABELS" ${ARGN})
  if(SFE_SANITIZE MATCHES thread AND name IN_LIST SFE_NOT_FOR_THREAD_SANITIZER)
    return()
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  if(SFE_SANITIZE MATCHES thread)
    target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/TsanSuppressions.cpp)
  endif()
  if(ARG_EAL)
    target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/EalTestMain.cpp)
    target_link_libraries(${name} PRIVATE ${ARG_DEPS} gmock gtest PkgConfig::DPDK PkgConfig::URCU Threads::Threads)
  else()
    target_link_libraries(${name} PRIVATE ${ARG_DEPS} gmock gtest gtest_main Threads::Threads)
  endif()
  add_test(NAME ${name} COMMAND ${SFE_TEST_LAUNCHER} $<TARGET_FILE:${name}>)
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)  # two orders of magnitude above what most need: sanitizers and busy machines
  endif()
  if(NOT ARG_LABELS)
    set(ARG_LABELS unit)
  endif()
  if("unit" IN_LIST ARG_LABELS)
    add_dependencies(unit_tests ${name})
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}"
                       ENVIRONMENT "GTEST_OUTPUT=xml:${SFE_TEST_REPORTS}/${name}.xml")
endfunction()

# sfe_benchmark(NAME SOURCES ... DEPS ...)
function(sfe_benchmark name)
  if(NOT SFE_BENCH)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} benchmark Threads::Threads)
endfunction()
