#include "caches/in_use.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

namespace kelvane::caches {
namespace {

constexpr std::size_t most_processes = 65'536;
constexpr std::size_t longest_process_name = 15;

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

std::string substituted(std::string text, const std::string& wildcard) {
  static constexpr std::string_view placeholder = "{1}";
  for (std::size_t at = 0; (at = text.find(placeholder, at)) != std::string::npos; at += wildcard.size()) {
    text.replace(at, placeholder.size(), wildcard);
  }
  return text;
}

std::optional<client::CacheLock::Kind> lockKind(InUse::Kind kind) {
  switch (kind) {
    case InUse::Kind::flock:
      return client::CacheLock::Kind::flock;
    case InUse::Kind::record:
      return client::CacheLock::Kind::record;
    case InUse::Kind::exists:
      return client::CacheLock::Kind::exists;
    default:
      return std::nullopt;
  }
}

std::string contents(int directory, const char* name) {
  const FileDescriptor file(::openat(directory, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  std::array<char, 4096> buffer{};
  const ssize_t length = file ? ::read(file.get(), buffer.data(), buffer.size()) : 0;
  return {buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

/// Whether "Uid:" of a process's status names the user. The owner of its files in /proc may be root instead.
bool isOfThisUser(const std::string& status) {
  const std::size_t line = status.find("\nUid:");
  if (line == std::string::npos) return false;
  uid_t real = 0;
  uid_t effective = 0;
  if (std::sscanf(status.c_str() + line, "\nUid: %u %u", &real, &effective) != 2) return false;
  return real == ::geteuid() || effective == ::geteuid();
}

bool runs(int processes, const char* id, const std::vector<std::string>& names, std::string& name) {
  const FileDescriptor process(::openat(processes, id, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!process) return false;
  name = contents(process.get(), "comm");
  while (name.ends_with('\n')) name.pop_back();
  return std::find(names.begin(), names.end(), name) != names.end() &&
         isOfThisUser(contents(process.get(), "status"));
}

std::string runningAmong(const std::vector<std::string>& names) {
  if (names.empty()) return {};
  const std::unique_ptr<DIR, CloseDirectory> processes(::opendir("/proc"));
  std::size_t seen = 0;
  std::string name;
  while (const dirent* const entry = processes ? ::readdir(processes.get()) : nullptr) {
    if (entry->d_name[0] < '1' || entry->d_name[0] > '9') continue;
    if (++seen > most_processes) return "too many processes to tell whether one uses it";
    if (runs(::dirfd(processes.get()), entry->d_name, names, name))
      return fmt::format("\"{}\" is running", name);
  }
  return seen > 0 ? "" : "/proc cannot be read, so it is unknown which programs run";
}

std::string ownHost() {
  utsname names{};
  return ::uname(&names) == 0 ? names.nodename : "";
}

std::optional<pid_t> processOf(std::string_view digits) {
  pid_t process = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), process);
  if (error != std::errc() || end != digits.data() + digits.size() || process <= 0) return std::nullopt;
  return process;
}

bool isAbsent(int error) { return error == ENOENT || error == ENOTDIR; }

bool lives(pid_t process) { return ::kill(process, 0) == 0 || errno != ESRCH; }

}  // namespace

bool isHeld(const std::string& target, const std::string& own_host) {
  if (const std::size_t plus = target.rfind(":+"); plus != std::string::npos) {
    const std::optional<pid_t> process = processOf(std::string_view(target).substr(plus + 2));
    return !process || lives(*process) || !target.starts_with("127.");
  }
  const std::size_t dash = target.rfind('-');
  if (dash == std::string::npos) return true;
  const std::optional<pid_t> process = processOf(std::string_view(target).substr(dash + 1));
  return !process || lives(*process) || target.substr(0, dash) != own_host;
}

Signs::Signs(const std::vector<InUse>& in_use, const std::string& home, int home_directory, int root,
             const std::string& wildcard)
    : home_(home), home_directory_(home_directory), root_(root) {
  for (const InUse& sign : in_use) {
    std::string what = substituted(sign.what, wildcard);
    if (sign.kind == InUse::Kind::process) {
      processes_.push_back(what.substr(0, longest_process_name));
    } else if (const auto kind = lockKind(sign.kind)) {
      if (sign.kind == InUse::Kind::exists) files_.push_back(what);
      if (what.starts_with("~/")) what = home_ + what.substr(1);
      locks_.push_back({*kind, std::move(what)});
    } else {
      links_.push_back(std::move(what));
    }
  }
}

std::string Signs::now() const {
  for (const std::string& file : files_) {
    if (std::string fault = present(file); !fault.empty()) return fault;
  }
  for (const std::string& link : links_) {
    if (std::string holder = holderOf(link); !holder.empty()) return holder;
  }
  return runningAmong(processes_);
}

/// The directory of a sign, or nothing with the reason in errno. Follows no link, and enters no mount below
/// the home or the root.
FileDescriptor Signs::parentOf(const std::string& path, std::string& name) const {
  const bool in_home = path.starts_with("~/");
  const std::string below = in_home ? path.substr(2) : path;
  const std::size_t slash = below.rfind('/');
  const std::string parent = slash == std::string::npos ? "." : below.substr(0, slash + 1);
  name = slash == std::string::npos ? below : below.substr(slash + 1);
  open_how how{};
  how.flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  how.resolve = RESOLVE_NO_SYMLINKS | (path.starts_with('/') ? 0 : RESOLVE_BENEATH | RESOLVE_NO_XDEV);
  const int from = in_home ? home_directory_ : root_;
  return FileDescriptor(static_cast<int>(::syscall(SYS_openat2, from, parent.c_str(), &how, sizeof how)));
}

std::string Signs::present(const std::string& path) const {
  std::string name;
  struct stat status {};
  const FileDescriptor parent = parentOf(path, name);
  const bool found =
      parent && ::fstatat(parent.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) == 0;
  if (found) return fmt::format("{} exists", path);
  return isAbsent(errno) ? "" : fmt::format("{}: {}", path, std::strerror(errno));
}

std::string Signs::holderOf(const std::string& link) const {
  std::string name;
  std::array<char, PATH_MAX> target{};
  const FileDescriptor parent = parentOf(link, name);
  const ssize_t length = parent ? ::readlinkat(parent.get(), name.c_str(), target.data(), target.size()) : -1;
  if (length < 0) return isAbsent(errno) ? "" : fmt::format("{}: {}", link, std::strerror(errno));
  const std::string held_by(target.data(), static_cast<std::size_t>(length));
  return isHeld(held_by, ownHost()) ? fmt::format("{} says that \"{}\" uses it", link, held_by) : "";
}

}  // namespace kelvane::caches
