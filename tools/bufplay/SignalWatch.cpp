#include "SignalWatch.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace {

sigset_t WatchedSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGTSTP}) sigaddset(&signals, signal);
  return signals;
}

int OpenSignalFd() {
  const sigset_t signals = WatchedSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // A reader that went away ends the event lines; writing on must not kill bufplay.
  ::signal(SIGPIPE, SIG_IGN);
  const int fd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
  return fd;
}

}  // namespace

SignalWatch::SignalWatch() : fd_(OpenSignalFd()) {}

SignalWatch::~SignalWatch() { close(fd_); }

int SignalWatch::take() {
  signalfd_siginfo info{};
  return ::read(fd_, &info, sizeof info) == ssize_t(sizeof info) ? int(info.ssi_signo) : 0;
}

void SignalWatch::suspendSelf() { kill(getpid(), SIGSTOP); }
