#include "tools/taken_signals.h"

#include <sys/signalfd.h>
#include <unistd.h>
#include <csignal>

namespace kelvane::tools {

FileDescriptor takenSignals(std::initializer_list<int> numbers) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : numbers) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler != SIG_IGN) sigaddset(&signals, number);
  }
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return FileDescriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

int nextSignal(const FileDescriptor& signals) {
  signalfd_siginfo signal{};
  return ::read(signals.get(), &signal, sizeof signal) == sizeof signal ? static_cast<int>(signal.ssi_signo)
                                                                        : 0;
}

}  // namespace kelvane::tools
