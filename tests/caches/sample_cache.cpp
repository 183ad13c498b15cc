#include "tests/caches/sample_cache.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "caches/safety.h"
#include "client/cache_clock.h"
#include "platform/foundation/file_descriptor.h"
#include "tests/caches/moved_time.h"

namespace kelvane::caches::tests {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kibibyte = 1024;
/// So that one percent of what goes is more than a file system's own records take.
constexpr std::size_t size_step = 68 * kibibyte;
constexpr std::size_t size_of_only_one = 20 * size_step;
constexpr const char* tag = "CACHEDIR.TAG";
constexpr const char* signature = "Signature: 8a477f597d28d172789f06886806bc55\n";
constexpr std::time_t some_minutes = 600;
constexpr std::time_t very_old = ahead - hour;
constexpr int items_of_all_patterns = 32;

bool existsAt(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

}  // namespace

SampleCache::SampleCache(const Definition& definition, std::string home, uid_t user)
    : definition_(definition), home_(std::move(home)), user_(user), patterns_(definition.rules.include) {
  if (patterns_.empty()) patterns_ = {definition.rules.tagged_only ? "*/**" : "**"};
  for (const std::string& root : definition.roots) roots_.push_back(rootFrom(root));
}

std::string SampleCache::rootFrom(std::string written) const {
  if (written.starts_with("${")) {
    const std::size_t end = written.find('}');
    written = variableDefault(written.substr(2, end - 2)).value() + written.substr(end + 1);
  }
  if (written.starts_with('~')) written = home_ + written.substr(1);
  for (std::size_t at = 0; (at = written.find('*', at)) != std::string::npos;)
    written.replace(at, 1, "Default");
  return written;
}

std::time_t SampleCache::threshold(int urgency) const {
  std::time_t least = 0;
  for (int i = 0; i < urgency; ++i) {
    const auto age = definition_.rules.ages.at(static_cast<std::size_t>(i));
    if (age && (least == 0 || age->count() < least)) least = age->count();
  }
  return least;
}

std::string SampleCache::sample(const std::string& root, const std::string& pattern, int levels) {
  const std::string path = root + "/" + names_.path(pattern, levels);
  return existsAt(path) ? "" : path;
}

void SampleCache::makeDirectories(const std::string& path) const {
  const fs::path start = definition_.owner == Owner::user ? home_ : "/var";
  fs::path made = start;
  for (const fs::path& name : fs::path(path).lexically_relative(start)) {
    made /= name;
    if (::mkdir(made.c_str(), 0755) == 0) {
      ::chown(made.c_str(), user_, user_);
    } else if (errno != EEXIST) {
      throw fs::filesystem_error("mkdir", made, std::error_code(errno, std::generic_category()));
    }
  }
}

void SampleCache::makeFile(const std::string& path, std::size_t bytes, std::time_t age) const {
  makeDirectories(fs::path(path).parent_path());
  const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  const int error = !file        ? errno
                    : bytes == 0 ? 0
                                 : ::posix_fallocate(file.get(), 0, static_cast<off_t>(bytes));
  if (error != 0)
    throw fs::filesystem_error("cannot make", path, std::error_code(error, std::generic_category()));
  const std::time_t then = client::cacheTime() - age;
  const timespec times[] = {{then, 0}, {then, 0}};
  ::utimensat(AT_FDCWD, path.c_str(), times, 0);
  ::chown(path.c_str(), user_, user_);
}

void SampleCache::makeTag(const std::string& directory) const {
  const std::string path = directory + "/" + tag;
  if (existsAt(path)) return;
  makeFile(path, 0, very_old);
  std::ofstream(path) << signature;
}

/// A file, or a unit of several.
void SampleCache::makeItem(const std::string& path, std::time_t age) {
  const auto size = [&] { return (1 + files_++ % 15) * (is_single_ ? size_of_only_one : size_step); };
  if (definition_.rules.tagged_only && tag_) makeTag(fs::path(path).parent_path());
  if (!isUnits()) return makeFile(path, size(), age);
  for (const char* name : {"a", "directory/b", "directory/deep/c"}) makeFile(path + "/" + name, size(), age);
  for (const std::string& marker : definition_.rules.markers) makeFile(fs::path(path) / marker, 10, age);
  for (const client::CacheLock& lock : definition_.rules.unit_locks) {
    if (lock.path.find('{') == std::string::npos) makeFile(path + "/" + lock.path, 0, age);
  }
  link(path + "/a", path + "/a further name of a");
  ::symlink("/etc/passwd", (path + "/link").c_str());
  ::lchown((path + "/link").c_str(), user_, user_);
  ::chmod((path + "/directory").c_str(), 0555);
}

void SampleCache::link(const std::string& from, const std::string& to) const {
  makeDirectories(fs::path(to).parent_path());
  fs::create_hard_link(from, to);
}

void SampleCache::makeYoung() {
  for (const std::string& root : roots_) {
    if (hasFloor()) makeNewest(root, patterns_.front(), some_minutes);
    for (const std::string& pattern : patterns_) makeYoungItem(root, pattern);
  }
}

void SampleCache::make() {
  for (const std::string& root : roots_) makeRoot(root);
  for (const std::string& root : roots_) makeAround(root);
}

void SampleCache::makeRoot(const std::string& root) {
  makeDirectories(root);
  makeLocks(root);
  for (const std::string& pattern : patterns_) makeItems(root, pattern);
  for (const std::string& pattern : patterns_) {
    makeLinked(root, pattern);
    makePinned(root, pattern);
    makeReadOnly(root, pattern);
    if (definition_.rules.tagged_only) makeUntagged(root, pattern);
    if (!hasFloor()) makeYoungItem(root, pattern);
  }
  for (const std::string& pattern : definition_.rules.exclude) makeExcluded(root, pattern);
  if (hasFloor()) makeNewest(root, patterns_.front(), threshold(client::most_urgent) + some_minutes);
}

/// Some for each urgency, on each number of levels.
void SampleCache::makeItems(const std::string& root, const std::string& pattern) {
  const auto all = static_cast<int>(roots_.size() * patterns_.size());
  const int least_count = client::most_urgent * (pattern.find("**") == std::string::npos ? 1 : 3);
  const int count = std::max(least_count, items_of_all_patterns / all);
  is_single_ = pattern.find_first_of("*?[") == std::string::npos;
  for (int i = 0; i < count; ++i) {
    const int least = 1 + i % client::most_urgent;
    if (threshold(least) == 0) continue;
    const std::string path = sample(root, pattern, i / client::most_urgent % 3);
    if (path.empty()) break;  // of a pattern that names one thing only
    const std::time_t age = threshold(least) + (hasFloor() ? threshold(least) : hour);
    makeItem(path, age);
    for (int urgency = 1; urgency <= client::most_urgent; ++urgency) {
      if (threshold(urgency) != 0 && age >= threshold(urgency))
        goes_.at(static_cast<std::size_t>(urgency) - 1).insert(path);
    }
  }
  is_single_ = false;
}

void SampleCache::makeYoungItem(const std::string& root, const std::string& pattern) {
  const std::string path = sample(root, pattern, 1);
  if (path.empty()) return;
  makeItem(path, threshold(client::most_urgent) - some_minutes);
  keep(path);
}

/// With a further name elsewhere: a file stays, a unit goes and the other name stays.
void SampleCache::makeLinked(const std::string& root, const std::string& pattern) {
  const std::string path = sample(root, pattern, 1);
  if (path.empty()) return;
  const std::string elsewhere =
      (definition_.owner == Owner::user ? home_ : "/var") + "/linked/" + names_.next();
  const std::time_t age = very_old;
  makeItem(path, age);
  link(isUnits() ? path + "/directory/deep/c" : path, elsewhere);
  keep(elsewhere);
  if (!isUnits()) {
    keep(path);
    return makePair(root, pattern);
  }
  for (int urgency = 1; urgency <= client::most_urgent; ++urgency) {
    if (threshold(urgency) != 0) goes_.at(static_cast<std::size_t>(urgency) - 1).insert(path);
  }
}

/// Two names of one file, which both go.
void SampleCache::makePair(const std::string& root, const std::string& pattern) {
  const std::string first = sample(root, pattern, 1);
  if (first.empty()) return;
  makeItem(first, very_old);
  const std::string second = sample(root, pattern, 2);
  if (!second.empty()) link(first, second);
  if (!second.empty() && definition_.rules.tagged_only) makeTag(fs::path(second).parent_path());
  for (int urgency = 1; urgency <= client::most_urgent; ++urgency) {
    if (threshold(urgency) == 0) continue;
    Paths& goes = goes_.at(static_cast<std::size_t>(urgency) - 1);
    goes.insert(first);
    if (!second.empty()) goes.insert(second);
  }
}

/// A unit, or the directory that a file is in.
void SampleCache::makePinned(const std::string& root, const std::string& pattern) {
  const std::string path = sample(root, pattern, 1);
  const fs::path parent = fs::path(path).parent_path();
  if (path.empty() || (!isUnits() && (parent == root || existsAt(parent)))) return;
  makeItem(path, very_old);
  const std::string pin =
      isUnits() ? path + "/directory/deep/.kelvane-keep" : (parent / ".kelvane-keep").string();
  makeFile(pin, 0, very_old);
  keep(isUnits() ? path : parent.string());
}

/// A file that its user could not delete himself. Units are another matter: the directories go with them.
void SampleCache::makeReadOnly(const std::string& root, const std::string& pattern) {
  const std::string path = sample(root, pattern, 1);
  const fs::path parent = fs::path(path).parent_path();
  if (path.empty() || isUnits() || parent == root || existsAt(parent)) return;
  makeItem(path, very_old);
  ::chmod(parent.c_str(), 0555);
  keep(parent);
}

void SampleCache::makeUntagged(const std::string& root, const std::string& pattern) {
  const std::string path = sample(root, pattern, 1);
  if (path.empty()) return;
  tag_ = false;
  makeItem(path, very_old);
  tag_ = true;
  keep(path);
}

/// What an include pattern would match, but for the exclude pattern.
void SampleCache::makeExcluded(const std::string& root, const std::string& pattern) {
  const std::string& included = patterns_.front();
  if (pattern.find('*') == std::string::npos) {
    const std::string directory = root + "/" + pattern;
    if (existsAt(directory) && !fs::is_directory(directory)) return;
    const std::string path = sample(directory, included, 1);
    if (!path.empty()) makeItem(path, very_old);
    return keep(directory);
  }
  std::string name = pattern;
  while (name.find('*') != std::string::npos) name.replace(name.find('*'), 1, names_.path(included, 1));
  makeItem(root + "/" + name, very_old);
  keep(root + "/" + name);
}

/// As many, or as much, as the rules always leave.
void SampleCache::makeNewest(const std::string& root, const std::string& pattern, std::time_t age) {
  constexpr std::size_t large = 8 * kibibyte * kibibyte;
  for (std::uint64_t i = 0; i < definition_.rules.keep_newest; ++i) {
    const std::string path = sample(root, pattern, 1);
    makeItem(path, age);
    keep(path);
  }
  for (std::uint64_t bytes = 0; bytes < definition_.rules.keep_bytes; bytes += large) {
    const std::string path = sample(root, pattern, 1);
    makeFile(path, large, age);
    keep(path);
  }
}

/// Held by nobody.
void SampleCache::makeLocks(const std::string& root) {
  for (const InUse& sign : definition_.in_use) {
    if (sign.kind != InUse::Kind::flock && sign.kind != InUse::Kind::record) continue;
    std::string path = sign.what;
    if (path.find("{1}") != std::string::npos) path.replace(path.find("{1}"), 3, "Default");
    path = path.starts_with("~") ? home_ + path.substr(1) : (fs::path(root) / path).string();
    if (!existsAt(path)) makeFile(path, 0, very_old);
    keep(path);
  }
}

/// Beside the root, beside what is named, and where nothing ever goes.
void SampleCache::makeAround(const std::string& root) {
  const std::string beside = fs::path(root).parent_path() / ("beside " + names_.next());
  makeFile(beside, kibibyte, very_old);
  keep(beside);
  const bool matches =
      !isUnits() && (definition_.rules.include.empty() ||
                     std::any_of(patterns_.begin(), patterns_.end(), [](const auto& pattern) {
                       return ::fnmatch(pattern.c_str(), "unnamed", FNM_PATHNAME) == 0;
                     }));
  if (!matches) {
    makeFile(root + "/unnamed", kibibyte, very_old);
    keep(root + "/unnamed");
  }
  if (definition_.owner != Owner::user || existsAt(home_ + "/Documents")) return;
  for (const char* directory : {"/Documents/", "/.ssh/", "/.cache/rclone/"}) {
    const std::string path = home_ + directory + names_.next();
    makeFile(path, kibibyte, very_old);
    keep(path);
  }
  makeTag(home_ + "/.cache/rclone");
}

}  // namespace kelvane::caches::tests
