#pragma once

#include <pthread.h>
#include <csignal>
#include <system_error>
#include <thread>
#include <utility>

namespace kelvane::dispatch {

/// Starts a thread that takes no signals: those are for the threads that the program started itself. Throws
/// std::system_error when there can be no more of them.
template <typename Body>
[[nodiscard]] std::thread startThread(Body body) {
  class SignalsBlocked {
   public:
    SignalsBlocked() {
      sigset_t all;
      sigfillset(&all);
      pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

   private:
    sigset_t before_{};
  };
  const SignalsBlocked blocked;  // the thread begins with its maker's mask
  return std::thread(std::move(body));
}

/// Runs `work` here and, when there can be one, on a second thread at the same time; returns when both are
/// done. The second has the caller's rights. Nothing may be thrown.
template <typename Work>
void runTwice(const Work& work) {
  std::thread second;
  try {
    second = startThread([&work] { work(); });
  } catch (const std::system_error&) {
    // One does it as well.
  }
  work();
  if (second.joinable()) second.join();
}

}  // namespace kelvane::dispatch
