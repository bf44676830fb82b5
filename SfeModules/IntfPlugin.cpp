// The edge modules as a plug-in: loading it registers the classes, unloading it takes them out
// again.

#include "SfeModules/IntfIn.h"
#include "SfeModules/IntfOut.h"

static const ModuleRegistration<SfeModules::IntfIn> kIntfIn(SfeModules::IntfIn::moduleClass());
static const ModuleRegistration<SfeModules::IntfOut> kIntfOut(SfeModules::IntfOut::moduleClass());
