# The stock modules, part of the framework's library.
set(BESS_MODULE_SOURCES Modules/PortInc.cpp Modules/PortOut.cpp Modules/Sink.cpp Modules/Source.cpp)

sfe_test(stock_modules_test EAL SOURCES Modules/StockModulesTest.cpp DEPS bess)
