# Ports and the hooks on gates, part of the framework's library.
set(BESS_PORT_SOURCES Port.cpp PortIo.cpp PortProbe.cpp PortRegistry.cpp hooks/PcapCapture.cpp
    hooks/Track.cpp)

sfe_test(port_test EAL SOURCES PortTest.cpp PortRegistryTest.cpp DEPS bess)
sfe_test(gate_hooks_test EAL SOURCES hooks/HooksTest.cpp DEPS bess)
sfe_test(port_veth_test EAL SOURCES PortVethTest.cpp DEPS bess LABELS system)
