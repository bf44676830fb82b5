// Orp::ThreadExit: runs a function on a thread that ends, after the destructors of its thread_local
// objects.
//
// A thread_local object of its own would be destroyed before others that may still use what it
// guards; this runs later, and may be armed again by whoever runs in between. Threads    : any.
// Construct it once for the life of the process: there is no way back. Errors     : fatal when the
// system has no key left. On the main thread the function does not run.
#pragma once

#include <pthread.h>

namespace Orp {

class ThreadExit {
 public:
  using Function = void (*)(void*);

  explicit ThreadExit(Function atExit);
  ThreadExit(const ThreadExit&) = delete;
  ThreadExit& operator=(const ThreadExit&) = delete;
  ~ThreadExit() = delete;

  // Lets the function run with `argument` (not null) when the calling thread ends.
  void arm(void* argument);

 private:
  pthread_key_t key_ = 0;
};

}  // namespace Orp
