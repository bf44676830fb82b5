# The control service, part of the bess library.
find_package(OpenSSL REQUIRED)
set(BESS_CONTROL_SOURCES ControlAccess.cpp ControlCommands.cpp ControlHealth.cpp ControlInfo.cpp ControlServer.cpp ControlService.cpp ControlServiceModules.cpp
                         ControlServiceStates.cpp ControlServicePorts.cpp ControlServiceStream.cpp ControlSocket.cpp
                         ControlTls.cpp)
set(BESS_CONTROL_DEPS PkgConfig::GRPCPP grpc++_reflection OpenSSL::SSL)

sfe_test(control_socket_test SOURCES ControlSocketTest.cpp DEPS bess)
sfe_test(control_service_test
  SOURCES ControlAccessTest.cpp ControlCommandsTest.cpp ControlHealthTest.cpp ControlHostileTest.cpp ControlServerTest.cpp
          ControlServiceStatesTest.cpp ControlServiceStreamTest.cpp ControlServiceTest.cpp
  DEPS bess
  EAL)
