#include "caches/roots.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "caches/safety.h"

namespace kelvane::caches {
namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

/// A root, split into its start and the names below it.
struct Written {
  bool in_home = false;
  std::vector<std::string> names;
  std::string reason;
};

/// "${NAME}/rest" as "~/.../rest".
std::optional<std::string> withoutVariable(const std::string& written) {
  if (!written.starts_with("${")) return written;
  const std::size_t end = written.find('}');
  if (end == std::string::npos) return std::nullopt;
  const std::optional<std::string> value = variableDefault(written.substr(2, end - 2));
  if (!value) return std::nullopt;
  return *value + written.substr(end + 1);
}

std::vector<std::string> namesOf(const std::string& path) {
  std::vector<std::string> names;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    if (end > at) names.push_back(path.substr(at, end - at));
    at = end + 1;
  }
  return names;
}

Written split(const std::string& written) {
  const std::optional<std::string> path = withoutVariable(written);
  if (!path) return {false, {}, fmt::format("\"{}\" begins with an unknown variable", written)};
  Written result;
  result.in_home = path->starts_with("~/");
  if (!result.in_home && !path->starts_with('/')) {
    return {false, {}, fmt::format("\"{}\" is neither absolute nor below the home directory", written)};
  }
  result.names = namesOf(result.in_home ? path->substr(2) : *path);
  const bool leads_astray =
      std::any_of(result.names.begin(), result.names.end(), [](const std::string& name) {
        return name == "." || name == ".." || name.find('$') != std::string::npos;
      });
  if (result.names.empty() || result.names.size() > most_root_names || leads_astray) {
    result.reason =
        fmt::format("invalid root \"{}\": expected a path such as ~/.cache/NAME or /var/cache/NAME", written);
  }
  return result;
}

/// Expands the names one after the other. A missing directory ends its branch.
class Expansion {
 public:
  Expansion(const Base& base, const Written& written) : base_(base), written_(written) {}

  std::vector<Root> run() {
    OpenedDirectory start =
        written_.in_home ? again(base_.home) : openDirectory(base_.mounts, "/", Links::refused);
    if (!start.directory) {
      fail(start);
    } else {
      descend(start, 0, {});
    }
    return std::move(found_);
  }

 private:
  static OpenedDirectory again(const OpenedDirectory& directory) {
    return {FileDescriptor(::fcntl(directory.directory.get(), F_DUPFD_CLOEXEC, 0)), directory.path, {}, 0};
  }

  void fail(const OpenedDirectory& what, bool matched = false) {
    if (what.error == ENOENT || what.error == ENOTDIR || (matched && what.error == ELOOP)) return;
    Root& root = found_.emplace_back();
    root.path = what.path;
    root.reason = what.reason;
  }

  [[nodiscard]] OpenedDirectory open(const OpenedDirectory& parent, const std::string& name) const {
    if (!written_.in_home) return named(openIn(base_.mounts, parent, name), parent, name);
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV | RESOLVE_NO_MAGICLINKS;
    OpenedDirectory result;
    result.directory = FileDescriptor(
        static_cast<int>(::syscall(SYS_openat2, parent.directory.get(), name.c_str(), &how, sizeof how)));
    if (!result.directory) explain(result, parent, name, errno);
    return named(std::move(result), parent, name);
  }

  /// With O_NOFOLLOW and O_DIRECTORY, opening a link fails with ENOTDIR.
  static void explain(OpenedDirectory& result, const OpenedDirectory& parent, const std::string& name,
                      int error) {
    struct stat status {};
    const bool is_link = (error == ENOTDIR || error == ELOOP) &&
                         ::fstatat(parent.directory.get(), name.c_str(), &status,
                                   AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) == 0 &&
                         S_ISLNK(status.st_mode);
    result.error = is_link ? ELOOP : error;
    result.reason = is_link          ? "it is, or leads through, a symbolic link"
                    : error == EXDEV ? "it is on another mount than the home directory"
                                     : std::strerror(error);
  }

  static OpenedDirectory named(OpenedDirectory child, const OpenedDirectory& parent,
                               const std::string& name) {
    child.path = parent.path == "/" ? "/" + name : parent.path + "/" + name;
    return child;
  }

  void descend(const OpenedDirectory& at, std::size_t depth, const std::optional<std::string>& wildcard) {
    const std::string& pattern = written_.names[depth];
    if (pattern.find('*') == std::string::npos) return take(at, pattern, depth, wildcard, false);
    for (const auto& [name, matched] : matches(at, pattern)) {
      if (found_.size() >= most_matches) return;
      take(at, name, depth, wildcard ? wildcard : matched, true);
    }
  }

  void take(const OpenedDirectory& parent, const std::string& name, std::size_t depth,
            const std::optional<std::string>& wildcard, bool matched) {
    const OpenedDirectory child = open(parent, name);
    if (!child.directory) return fail(child, matched);
    if (depth + 1 < written_.names.size()) return descend(child, depth + 1, wildcard);
    finish(parent, child, wildcard);
  }

  void finish(const OpenedDirectory& parent, const OpenedDirectory& child,
              const std::optional<std::string>& wildcard) {
    Root root;
    root.path = child.path;
    root.wildcard = wildcard.value_or("");
    struct stat status {};
    if (::fstat(child.directory.get(), &status) == 0) {
      root.key = {status.st_dev, status.st_ino};
      root.owner = status.st_uid;
    }
    if (base_.reading) openForReading(child, root);
    const std::uint64_t mount = Mounts::idOf(child.directory.get());
    if (mount == 0 || mount != Mounts::idOf(parent.directory.get())) {
      root.directory.reset();
      root.reason = "it is a mount point";
    }
    found_.push_back(std::move(root));
  }

  static void openForReading(const OpenedDirectory& child, Root& root) {
    root.directory =
        FileDescriptor(::openat(child.directory.get(), ".", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!root.directory) root.reason = fmt::format("it cannot be read: {}", std::strerror(errno));
  }

  using Match = std::pair<std::string, std::string>;  // the name, and what the wildcard stands for
  std::vector<Match> matches(const OpenedDirectory& directory, const std::string& pattern) {
    std::vector<Match> result;
    const int list = ::openat(directory.directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, CloseDirectory> names(list >= 0 ? ::fdopendir(list) : nullptr);
    if (!names) {
      fail({{}, directory.path, fmt::format("it cannot be read: {}", std::strerror(errno)), errno});
      return result;
    }
    std::size_t read = 0;
    while (const dirent* const entry = ::readdir(names.get())) {
      const std::string_view name = entry->d_name;
      const bool may_be_directory = entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN;
      if (++read > most_names_read || result.size() == most_matches) {
        fail({{}, directory.path, "it has too many names: only the first were checked", EOVERFLOW});
        break;
      }
      if (name == "." || name == ".." || !may_be_directory) continue;
      if (auto matched = wildcardMatch(pattern, name)) result.emplace_back(name, std::move(*matched));
    }
    std::sort(result.begin(), result.end());
    return result;
  }

  const Base& base_;
  const Written& written_;
  std::vector<Root> found_;
};

}  // namespace

std::optional<std::string> wildcardMatch(std::string_view pattern, std::string_view name) {
  const std::size_t star = pattern.find('*');
  if (star == std::string_view::npos) return pattern == name ? std::optional<std::string>("") : std::nullopt;
  if (!name.starts_with(pattern.substr(0, star))) return std::nullopt;
  const std::string_view rest = pattern.substr(star + 1);
  if (rest.find('*') == std::string_view::npos) {
    if (name.size() < star + rest.size() || !name.ends_with(rest)) return std::nullopt;
    return std::string(name.substr(star, name.size() - star - rest.size()));
  }
  for (std::size_t length = 0; star + length <= name.size(); ++length) {
    if (wildcardMatch(rest, name.substr(star + length))) return std::string(name.substr(star, length));
  }
  return std::nullopt;
}

std::vector<Root> expandRoot(const Base& base, const std::string& written) {
  const Written parts = split(written);
  std::string reason = parts.reason;
  if (reason.empty() && parts.in_home && !base.home.directory) reason = "there is no home directory";
  if (reason.empty() && !parts.in_home && base.home.directory) reason = "it is outside the home directory";
  if (reason.empty()) return Expansion(base, parts).run();
  std::vector<Root> result(1);
  result.front().path = written;
  result.front().reason = std::move(reason);
  return result;
}

void leaveOutRepeated(std::vector<Root>& roots) {
  std::set<RootKey> seen;
  std::erase_if(roots, [&](const Root& root) { return root.directory && !seen.insert(root.key).second; });
  for (Root& inner : roots) {
    const bool is_inside = std::any_of(roots.begin(), roots.end(), [&](const Root& outer) {
      return outer.directory && inner.path.starts_with(outer.path + "/");
    });
    if (!is_inside || !inner.directory) continue;
    inner.reason = "it is inside another directory of the same holder";
  }
  for (Root& root : roots) {
    if (!root.reason.empty()) root.directory.reset();
  }
}

}  // namespace kelvane::caches
