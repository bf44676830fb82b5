// A library that starts the file system, to be loaded and unloaded by a test.
#include "SfeModules/Fuse.h"

extern "C" void startStateFiles() {
  fuseInit();
}
