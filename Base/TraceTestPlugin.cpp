// A library that traces and is unloaded afterwards; loaded by TraceTest.
#include "Base/Trace.h"

extern "C" void tracePluginRun(unsigned value) {
  SFE_TRACE("Plugin", 7, "From a library: ", value, ", which goes");
}
