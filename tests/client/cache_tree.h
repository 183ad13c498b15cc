#pragma once

// A cache directory in which a test makes files of any age. The library's clock is a year ahead in these
// programs, because the time of a status change cannot be set.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "client/cache_clock.h"
#include "kelvane/cache_directory.h"
#include "tests/foundation/temporary_directory.h"

namespace kelvane::tests {

inline constexpr std::int64_t hour = 3600;
inline constexpr std::int64_t day = 24 * hour;
inline constexpr std::uint64_t everything = UINT64_MAX;
inline constexpr client::AgeCut all_ages{INT64_MAX};

/// To be called before the first test.
inline bool advanceAYear() {
  client::advanceCacheTime(365 * day);
  return true;
}

inline client::CacheRules rulesOfDays(std::array<int, 4> days) {
  client::CacheRules rules;
  for (std::size_t i = 0; i < days.size(); ++i)
    if (days[i] >= 0) rules.ages[i] = std::chrono::seconds(days[i] * day);
  return rules;
}

/// Of a directory and those below it, without their files.
inline std::uint64_t bytesOfDirectories(const std::string& top) {
  const auto own = [](const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return static_cast<std::uint64_t>(status.st_blocks) * 512;
  };
  std::uint64_t bytes = own(top);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(top))
    if (!entry.is_symlink() && entry.is_directory()) bytes += own(entry.path());
  return bytes;
}

class CacheTree {
 public:
  explicit CacheTree(const std::filesystem::path& parent = std::filesystem::temp_directory_path())
      : directory_(parent) {
    std::filesystem::create_directory(root());
  }

  [[nodiscard]] std::string root() const { return directory_ / "cache"; }
  [[nodiscard]] std::string outside(const std::string& name) const { return directory_ / name; }
  [[nodiscard]] std::string path(const std::string& name) const { return root() + "/" + name; }
  [[nodiscard]] bool exists(const std::string& name) const {
    return std::filesystem::exists(std::filesystem::symlink_status(path(name)));
  }
  [[nodiscard]] const test::TemporaryDirectory& directory() const { return directory_; }

  /// Makes a file of that age in seconds; returns the bytes that it takes.
  std::uint64_t add(const std::string& name, std::int64_t age = 300 * day, std::size_t bytes = 8192) const {
    directory_.write("cache/" + name, std::string(bytes, 'x'));
    setAge(name, age);
    return bytesOf(name);
  }
  void setAge(const std::string& name, std::int64_t age) const {
    const timespec then{client::cacheTime() - age, 0};
    const timespec times[] = {then, then};
    EXPECT_EQ(::utimensat(AT_FDCWD, path(name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << name;
  }
  [[nodiscard]] std::uint64_t bytesOf(const std::string& name) const {
    struct stat status {};
    EXPECT_EQ(::lstat(path(name).c_str(), &status), 0) << name;
    return static_cast<std::uint64_t>(status.st_blocks) * 512;
  }

  [[nodiscard]] std::unique_ptr<client::CacheDirectory> open(const client::CacheRules& rules) const {
    auto opened = client::CacheDirectory::open(root(), rules);
    EXPECT_TRUE(opened) << opened.error().reason;
    return opened ? std::move(*opened) : nullptr;
  }
  [[nodiscard]] client::CacheSurvey survey(const client::CacheRules& rules) const {
    return open(rules)->survey(limits());
  }
  [[nodiscard]] client::CachePurge purge(const client::CacheRules& rules, int urgency = 4,
                                         client::AgeCut cut = all_ages,
                                         std::uint64_t amount = everything) const {
    return open(rules)->purge(urgency, cut, amount, limits());
  }
  /// The files that would go, sorted.
  [[nodiscard]] std::vector<std::string> list(const client::CacheRules& rules, int urgency = 4,
                                              client::AgeCut cut = all_ages,
                                              std::uint64_t amount = everything) const {
    std::vector<std::string> names;
    listed_ = open(rules)->list(urgency, cut, amount, limits(), [&](const client::CacheItem& item) {
      names.push_back(item.path);
      return true;
    });
    std::sort(names.begin(), names.end());
    return names;
  }
  /// The result of the last list.
  [[nodiscard]] const client::CachePurge& listed() const { return listed_; }
  [[nodiscard]] client::CacheLimits limits() const {
    return {client::Cancellation(cancelled), std::chrono::steady_clock::time_point::max()};
  }
  /// All existing regular files, sorted.
  [[nodiscard]] std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root())) {
      if (entry.is_regular_file() && !entry.is_symlink())
        names.push_back(entry.path().string().substr(root().size() + 1));
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  const std::shared_ptr<std::atomic<bool>> cancelled = std::make_shared<std::atomic<bool>>(false);

 private:
  const test::TemporaryDirectory directory_;
  mutable client::CachePurge listed_;
};

inline client::CacheFigure stays(const client::CacheSurvey& survey, client::CacheStay reason) {
  return survey.stays[static_cast<std::size_t>(reason)];
}
inline client::CacheFigure stays(const client::CachePurge& purge, client::CacheStay reason) {
  return purge.stays[static_cast<std::size_t>(reason)];
}

}  // namespace kelvane::tests
