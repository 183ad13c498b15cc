#include "tests/caches/sandbox.h"

#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <cstddef>
#include <vector>

namespace kelvane::caches::tests {
namespace {

/// @privileged, @resources and @keyring without @setuid.
std::vector<unsigned> refusedCalls() {
  return {SYS_chown,
          SYS_fchown,
          SYS_lchown,
          SYS_fchownat,
          SYS_clock_settime,
          SYS_settimeofday,
          SYS_adjtimex,
          SYS_clock_adjtime,
          SYS_init_module,
          SYS_finit_module,
          SYS_delete_module,
          SYS_reboot,
          SYS_swapon,
          SYS_swapoff,
          SYS_acct,
          SYS_bpf,
          SYS_chroot,
          SYS_fanotify_init,
          SYS_fanotify_mark,
          SYS_open_by_handle_at,
          SYS_pivot_root,
          SYS_quotactl,
          SYS_setdomainname,
          SYS_setfsuid,
          SYS_sethostname,
          SYS_vhangup,
          SYS_ioprio_set,
          SYS_mbind,
          SYS_migrate_pages,
          SYS_move_pages,
          SYS_sched_setattr,
          SYS_sched_setparam,
          SYS_sched_setaffinity,
          SYS_sched_setscheduler,
          SYS_set_mempolicy,
          SYS_setpriority,
          SYS_setrlimit,
          SYS_add_key,
          SYS_keyctl,
          SYS_request_key,
          SYS_mount,
          SYS_umount2};
}

bool refuse(const std::vector<unsigned>& calls) {
  std::vector<sock_filter> program = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
  for (const unsigned call : calls) {
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM));
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  return ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

}  // namespace

std::string enterSandbox(Capset capset) {
  constexpr unsigned kept = 1U << CAP_DAC_READ_SEARCH | 1U << CAP_SETUID | 1U << CAP_SETGID | 1U << CAP_KILL;
  for (int capability = 0; ::prctl(PR_CAPBSET_READ, capability) >= 0; ++capability) {
    const bool stays = capability < 32 && (kept >> capability & 1U) != 0;
    if (!stays && ::prctl(PR_CAPBSET_DROP, capability) != 0) return "bounding set";
  }
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  const __user_cap_data_struct own[_LINUX_CAPABILITY_U32S_3] = {{kept, kept, 0}, {0, 0, 0}};
  if (::syscall(SYS_capset, &header, own) != 0) return "capabilities";
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return "new privileges";
  std::vector<unsigned> calls = refusedCalls();
  if (capset == Capset::refused) calls.push_back(SYS_capset);
  return refuse(calls) ? "" : "system calls";
}

}  // namespace kelvane::caches::tests
