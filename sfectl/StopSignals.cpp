#include "sfectl/StopSignals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "sfectl/Errors.h"

namespace Sfectl {

StopSignals::StopSignals(std::initializer_list<int> signals) {
  sigset_t wanted;
  sigemptyset(&wanted);
  for (const int signal : signals) {
    sigaddset(&wanted, signal);
  }
  pthread_sigmask(SIG_BLOCK, &wanted, &before_);
  fd_ = signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd_ < 0) {
    const std::string reason = std::strerror(errno);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    throw RuntimeError("cannot wait for signals: " + reason);
  }
}

StopSignals::~StopSignals() {
  while (take() != 0) {
  }
  close(fd_);
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

int StopSignals::take() {
  signalfd_siginfo info;
  return read(fd_, &info, sizeof(info)) == sizeof(info) ? static_cast<int>(info.ssi_signo) : 0;
}

}  // namespace Sfectl
