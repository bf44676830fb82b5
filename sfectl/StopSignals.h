// The signals that end a command in an orderly way, as something to poll for as long as it lives.
//
// Threads    : made and destroyed on the main thread. It must be made before the connection: the
//              threads of the connection then leave these signals to the main thread.
// Errors     : RuntimeError when the system gives no descriptor.
#pragma once

#include <signal.h>

#include <initializer_list>

namespace Sfectl {

class StopSignals {
 public:
  explicit StopSignals(std::initializer_list<int> signals = {SIGINT, SIGTERM});
  // What arrived and was not taken is gone: it asked for the end that is under way.
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // Readable when a signal waits.
  int fd() const { return fd_; }
  // Returns: the signal that waits, taken; 0 when there is none.
  int take();

 private:
  sigset_t before_;
  int fd_;
};

}  // namespace Sfectl
