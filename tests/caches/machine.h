#pragma once

// A machine with a few users: a volume with their homes, a passwd file, holders, and workers.

#include <gtest/gtest.h>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "caches/worker_settings.h"
#include "tests/caches/moved_time.h"
#include "tests/caches/temporary_directory.h"
#include "tests/support/private_mounts.h"

namespace kelvane::caches::tests {

inline constexpr uid_t alice = 61'001;
inline constexpr uid_t bob = 61'002;
inline constexpr uid_t carol = 61'003;

/// 30 days at urgency 2, 7 days at 3, an hour at 4.
[[nodiscard]] client::CacheRules usualRules();
/// Files in ~/.cache/pip.
[[nodiscard]] Definition pip();

/// All properties of the files at and below a path, for comparison.
[[nodiscard]] std::map<std::string, std::string> describeTree(const std::string& path);

[[nodiscard]] client::CacheLimits limits(std::chrono::milliseconds time = std::chrono::seconds(60));

class Machine : public testing::Test {
 protected:
  Machine();
  void SetUp() override;

  /// Where the homes are, and a volume of its own.
  [[nodiscard]] const std::string& volume() const { return directory_.path(); }
  [[nodiscard]] std::string home(uid_t user) const;
  /// Adds a user with an empty home on the volume, or with an existing `home_directory`.
  void addUser(uid_t user, const std::string& home_directory = {});
  /// The user owns it, and every directory above it below the home. At most `ahead` old.
  void addFile(uid_t user, const std::string& path, std::size_t bytes, std::time_t age) const;
  void addText(uid_t user, const std::string& path, const std::string& text) const;
  [[nodiscard]] bool has(uid_t user, const std::string& path) const;

  /// To be called after the users have been added.
  void start(std::vector<Definition> definitions,
             std::function<void(const Job& job, int socket)> before_work = {});
  [[nodiscard]] WorkerSettings settings() const;

  HolderReport survey(const std::string& holder = "pip", const std::string& on_volume = {}) {
    return workers_->survey(holder, on_volume, limits());
  }
  /// What a list names, as "PATH": root and path.
  std::vector<std::string> list(const std::string& holder, const std::string& on_volume, int urgency,
                                std::uint64_t amount);
  /// The reports of one user's.
  static std::vector<RootReport> of(uid_t user, const HolderReport& report);
  static std::string reasonOf(uid_t user, const HolderReport& report);

  std::unique_ptr<Workers> workers_;

 private:
  const TemporaryDirectory directory_;
  const kelvane::tests::PrivateMount mount_;
  std::string passwd_;
};

/// Makes a file of that age.
void makeFile(const std::string& path, std::size_t bytes, std::time_t age);

}  // namespace kelvane::caches::tests
