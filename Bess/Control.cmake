# The control service, part of the bess library.
set(BESS_CONTROL_SOURCES ControlInfo.cpp ControlServer.cpp ControlService.cpp ControlServiceModules.cpp ControlServiceStates.cpp
                         ControlServicePorts.cpp ControlServiceStream.cpp ControlSocket.cpp)
set(BESS_CONTROL_DEPS PkgConfig::GRPCPP grpc++_reflection)

sfe_test(control_socket_test SOURCES ControlSocketTest.cpp DEPS bess)
sfe_test(control_service_test
  SOURCES ControlServerTest.cpp ControlServiceStatesTest.cpp ControlServiceStreamTest.cpp ControlServiceTest.cpp
  DEPS bess
  EAL)
