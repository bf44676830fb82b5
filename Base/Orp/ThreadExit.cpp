#include "Base/Orp/ThreadExit.h"

#include <glog/logging.h>

namespace Orp {

ThreadExit::ThreadExit(Function atExit) {
  CHECK_EQ(pthread_key_create(&key_, atExit), 0) << "no thread key left";
}

void ThreadExit::arm(void* argument) {
  CHECK_EQ(pthread_setspecific(key_, argument), 0) << "no memory for a thread key";
}

}  // namespace Orp
