#pragma once

// A child that is stopped before each of its system calls on files, so that a test can change the files
// at each of these moments.

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <vector>

namespace kelvane::tests {

class SteppedProcess {
 public:
  /// Runs `body` in a child of one thread, to its end. `stopped` gets the number of each stop, from 1 on, and
  /// returns whether there are to be more. Returns how many there were.
  static int run(const std::function<void()>& body, const std::function<bool(int)>& stopped) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      ::raise(SIGSTOP);
      if (!traceCallsOnFiles()) ::_exit(1);
      body();
      ::_exit(0);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFSTOPPED(status))
      throw std::runtime_error("a child cannot be traced");
    ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESECCOMP);
    return follow(child, stopped);
  }

 private:
  static bool traceCallsOnFiles() {
    std::vector<sock_filter> program = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offsetof(seccomp_data, nr)))};
    for (const long call :
         {SYS_openat, SYS_openat2, SYS_statx, SYS_newfstatat, SYS_faccessat2, SYS_getdents64, SYS_unlinkat,
          SYS_renameat2, SYS_fchmod, SYS_fstatfs, SYS_close}) {
      program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(call), 0, 1));
      program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
  }
  static int follow(pid_t child, const std::function<bool(int)>& stopped) {
    bool stops_on = true;
    int stops = 0;
    std::intptr_t signal = 0;
    while (true) {
      int status = 0;
      ::ptrace(PTRACE_CONT, child, nullptr, signal);
      if (::waitpid(child, &status, 0) != child) throw std::runtime_error("the child was lost");
      if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return stops;
      if (!WIFSTOPPED(status)) throw std::runtime_error("the child failed");
      const bool at_call = status >> 8 == (SIGTRAP | PTRACE_EVENT_SECCOMP << 8);
      signal = at_call ? 0 : WSTOPSIG(status);
      if (at_call && stops_on) stops_on = stopped(++stops);
    }
  }
};

}  // namespace kelvane::tests
