#pragma once

#include <pthread.h>
#include <csignal>
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

}  // namespace kelvane::dispatch
