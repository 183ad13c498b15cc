#include "caches/identity.h"

#include <fmt/format.h>
#include <grp.h>
#include <linux/capability.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace kelvane::caches {
namespace {

constexpr rlim_t most_memory = rlim_t{256} << 20;
constexpr rlim_t most_descriptors = 256;

std::string failed(const char* what) { return fmt::format("{}: {}", what, std::strerror(errno)); }

using Capabilities = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;

bool read(Capabilities& capabilities) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  return ::syscall(SYS_capget, &header, capabilities.data()) == 0;
}

bool areNone(const Capabilities& capabilities) {
  return std::all_of(capabilities.begin(), capabilities.end(), [](const __user_cap_data_struct& part) {
    return part.effective == 0 && part.permitted == 0 && part.inheritable == 0;
  });
}

/// A change of the IDs from root's to another user's has dropped them already.
std::string dropCapabilities() {
  if (::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) != 0)
    return failed("clear ambient capabilities");
  Capabilities capabilities{};
  if (!read(capabilities)) return failed("capget");
  if (!areNone(capabilities)) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const Capabilities none{};
    if (::syscall(SYS_capset, &header, none.data()) != 0) return failed("capset");
  }
  if (!read(capabilities)) return failed("capget");
  return areNone(capabilities) ? "" : "some capabilities are left";
}

std::string refuseNewPrivileges() {
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return failed("PR_SET_NO_NEW_PRIVS");
  return ::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1 ? "" : "PR_SET_NO_NEW_PRIVS has no effect";
}

bool hasOnlyIdsOf(const User& user) {
  std::array<uid_t, 3> users{};
  std::array<gid_t, 3> groups{};
  return ::getresuid(&users[0], &users[1], &users[2]) == 0 &&
         ::getresgid(&groups[0], &groups[1], &groups[2]) == 0 &&
         std::all_of(users.begin(), users.end(), [&](uid_t id) { return id == user.id; }) &&
         std::all_of(groups.begin(), groups.end(), [&](gid_t id) { return id == user.group; });
}

/// Whether IDs of other users can still be set.
bool canComeBack(const User& user) {
  const uid_t other = user.id == 0 ? 65'534 : 0;
  const gid_t other_group = user.group == 0 ? 65'534 : 0;
  const gid_t* const groups = &other_group;
  return ::setuid(other) == 0 || ::setresuid(-1, other, -1) == 0 || ::setreuid(other, -1) == 0 ||
         ::setgid(other_group) == 0 || ::setresgid(-1, other_group, -1) == 0 || ::setgroups(1, groups) == 0;
}

std::string giveUpTheRest() {
  if (std::string fault = refuseNewPrivileges(); !fault.empty()) return fault;
  if (std::string fault = dropCapabilities(); !fault.empty()) return fault;
  if (::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) return failed("PR_SET_DUMPABLE");
  ::umask(077);
  return {};
}

}  // namespace

std::string becomeForGood(const User& user) {
  if (::setgroups(1, &user.group) != 0) return failed("setgroups");
  if (::setresgid(user.group, user.group, user.group) != 0) return failed("setresgid");
  if (::setresuid(user.id, user.id, user.id) != 0) return failed("setresuid");
  if (std::string fault = giveUpTheRest(); !fault.empty()) return fault;
  std::array<gid_t, 2> groups{};
  if (::getgroups(static_cast<int>(groups.size()), groups.data()) != 1 || groups[0] != user.group) {
    return "supplementary groups are left";
  }
  if (!hasOnlyIdsOf(user)) return "not all IDs changed";
  return canComeBack(user) ? "the rights that were given up can be regained" : "";
}

std::string stayForGood(const User& user) {
  if (std::string fault = giveUpTheRest(); !fault.empty()) return fault;
  return ::getuid() == user.id && ::geteuid() == user.id ? "" : "this process runs as another user";
}

std::string limitResources() {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they reserve terabytes
  const rlimit memory{most_memory, most_memory};
  if (::setrlimit(RLIMIT_AS, &memory) != 0) return failed("RLIMIT_AS");
  // Otherwise each thread reserves an arena of 64 MiB.
  ::mallopt(M_ARENA_MAX, 1);
#endif
  const rlimit descriptors{most_descriptors, most_descriptors};
  if (::setrlimit(RLIMIT_NOFILE, &descriptors) != 0) return failed("RLIMIT_NOFILE");
  const rlimit none{0, 0};
  if (::setrlimit(RLIMIT_CORE, &none) != 0) return failed("RLIMIT_CORE");
  if (::setrlimit(RLIMIT_FSIZE, &none) != 0) return failed("RLIMIT_FSIZE");
  return {};
}

}  // namespace kelvane::caches
