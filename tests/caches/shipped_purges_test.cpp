// Each shipped definition on real file systems: what is named is what goes, what is claimed is what the
// volume gains, and what has to stay is untouched.
//
// The volume is mounted at /var in the private mount namespace of this program, because the roots of system
// holders are absolute. The homes are on it as well.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "caches/definition_reader.h"
#include "caches/worker_settings.h"
#include "tests/caches/machine.h"
#include "tests/caches/sample_cache.h"
#include "tests/caches/temporary_directory.h"
#include "tests/support/block_volume.h"

namespace kelvane::caches::tests {
namespace {

namespace fs = std::filesystem;
using kelvane::tests::BlockVolume;
using kelvane::tests::PrivateMount;
using Paths = SampleCache::Paths;

constexpr std::size_t mebibyte = 1 << 20;

/// /var, on a file system of that type: one for all definitions.
class VarVolume {
 public:
  static const BlockVolume& of(const std::string& type) {
    static std::unique_ptr<VarVolume> present;
    if (!present || present->type_ != type) {
      present.reset();
      present = std::unique_ptr<VarVolume>(new VarVolume(type));
    }
    return present->volume_;
  }

 private:
  explicit VarVolume(const std::string& type)
      : type_(type),
        memory_(PrivateMount::tmpfs(directory_.path(), "2g")),
        volume_(type, 1024 * mebibyte, directory_ / "image", "/var") {
    ::chmod("/var", 0755);
  }

  const std::string type_;
  const TemporaryDirectory directory_;
  const PrivateMount memory_;
  const BlockVolume volume_;
};

/// What can be seen of a file that nobody touches. A directory changes with what is in it.
struct State {
  std::string text;
  std::string changed;  // empty: it has further names, and whoever deletes one of them changes it

  explicit State(const fs::path& path) {
    struct stat status {};
    ::lstat(path.c_str(), &status);
    text = fmt::format("{} {:o} {}", status.st_ino, status.st_mode, status.st_uid);
    if (S_ISDIR(status.st_mode)) return;
    text += fmt::format(" {} {}", status.st_size, status.st_mtim.tv_sec);
    if (status.st_nlink == 1) changed = fmt::format("{}.{}", status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
  }
  [[nodiscard]] bool isUntouched(const State& since) const {
    return text == since.text && (changed.empty() || changed == since.changed);
  }
};

using Tree = std::map<std::string, State>;

Tree treeOf(const std::string& path) {
  Tree tree;
  for (const auto& entry : fs::recursive_directory_iterator(path))
    tree.emplace(entry.path(), State(entry.path()));
  return tree;
}

Paths goneBetween(const Tree& before, const Tree& after) {
  Paths gone;
  for (const auto& [path, state] : before) {
    const auto left = after.find(path);
    if (left == after.end()) {
      gone.insert(path);
    } else {
      EXPECT_TRUE(state.isUntouched(left->second)) << path << ": " << state.text << ", " << left->second.text;
    }
  }
  EXPECT_EQ(after.size() + gone.size(), before.size()) << "nothing appears";
  return gone;
}

/// Only what differs is printed.
void expectSame(const Paths& paths, const Paths& expected, const std::string& about = {}) {
  Paths missing;
  Paths unexpected;
  std::set_difference(expected.begin(), expected.end(), paths.begin(), paths.end(),
                      std::inserter(missing, missing.end()));
  std::set_difference(paths.begin(), paths.end(), expected.begin(), expected.end(),
                      std::inserter(unexpected, unexpected.end()));
  EXPECT_THAT(missing, testing::IsEmpty()) << about;
  EXPECT_THAT(unexpected, testing::IsEmpty()) << about;
}

/// The paths themselves, and all that is below them.
Paths withContent(const Paths& items, const Tree& tree) {
  Paths paths;
  for (const std::string& item : items) {
    for (auto at = tree.lower_bound(item); at != tree.end() && at->first.starts_with(item); ++at) {
      if (at->first == item || at->first[item.size()] == '/') paths.insert(at->first);
    }
  }
  return paths;
}

struct Case {
  std::string volume;
  fs::path file;
};

void PrintTo(const Case& value, std::ostream* out) { *out << value.file << " on " << value.volume; }

class ShippedPurge : public testing::TestWithParam<Case> {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) FAIL() << "needs root, for loop devices and to be several users";
    const DefinitionResult read = readDefinition(GetParam().file);
    for (const Problem& problem : read.problems) ADD_FAILURE() << problem.text();
    ASSERT_TRUE(read.definition);
    definition_ = *read.definition;
    definition_.enabled = true;
    volume_ = &VarVolume::of(GetParam().volume);
    for (const auto& entry : fs::directory_iterator("/var")) fs::remove_all(entry.path());
    for (const uid_t user : {alice, bob}) {
      fs::create_directories(home(user));
      ::chown(home(user).c_str(), user, user);
    }
    write("/var/passwd",
          "root:x:0:0:root:/root:/bin/sh\nu1:x:61001:61001::/var/home/61001:/bin/sh\n"
          "u2:x:61002:61002::/var/home/61002:/bin/sh\n");
  }
  static std::string home(uid_t user) { return "/var/home/" + std::to_string(user); }

  void start() {
    WorkerSettings settings;
    settings.passwd = "/var/passwd";
    workers_ = startWorkers({definition_}, std::move(settings));
    ASSERT_TRUE(workers_);
  }
  struct Listed {
    Paths items;
    std::uint64_t bytes = 0;
    std::string reasons;
  };
  [[nodiscard]] Listed list(int urgency) const {
    Listed listed;
    const HolderReport report = workers_->list(definition_.name, "/var", urgency, UINT64_MAX, limits(),
                                               [&](const RootReport& root, const client::CacheItem& item) {
                                                 listed.items.insert(root.path + "/" + item.path);
                                                 return true;
                                               });
    EXPECT_TRUE(report.complete);
    listed.bytes = report.freed();
    listed.reasons = report.reason;
    for (const RootReport& root : report.roots) listed.reasons += " " + root.path + ": " + root.reason;
    return listed;
  }
  void expectNothingGoes() const {
    const Tree before = treeOf("/var");
    EXPECT_EQ(workers_->purge(definition_.name, {}, client::most_urgent, UINT64_MAX, limits()).freed(), 0U);
    EXPECT_THAT(goneBetween(before, treeOf("/var")), testing::IsEmpty());
  }
  void expectNothingGoesWhilePinned(const SampleCache& cache) const {
    for (const std::string& root : cache.roots()) write(root + "/.kelvane-keep", "");
    expectNothingGoes();
    for (const std::string& root : cache.roots()) fs::remove(root + "/.kelvane-keep");
  }

  Definition definition_;
  const BlockVolume* volume_ = nullptr;
  std::unique_ptr<Workers> workers_;
};

TEST_P(ShippedPurge, DeletesWhatItNamesAndFreesWhatItClaims) {
  const bool is_system = definition_.owner == Owner::system;
  start();
  SampleCache young(definition_, home(bob), is_system ? 0 : bob);
  young.makeYoung();
  if (is_system) {  // there is no other place for what follows
    expectNothingGoes();
    for (const std::string& root : young.roots()) fs::remove_all(root);
  }
  SampleCache cache(definition_, home(alice), is_system ? 0 : alice);
  cache.make();
  expectNothingGoesWhilePinned(cache);

  Listed named;
  for (int urgency = 1; urgency <= client::most_urgent; ++urgency) {
    const bool is_as_below = urgency > 1 && urgency < client::most_urgent &&
                             !definition_.rules.ages.at(static_cast<std::size_t>(urgency) - 1);
    if (is_as_below) continue;
    named = list(urgency);
    expectSame(named.items, cache.atUrgency(urgency), fmt::format("urgency {}{}", urgency, named.reasons));
  }
  ASSERT_THAT(named.items, testing::Not(testing::IsEmpty()));

  const std::uint64_t free_before = volume_->settledFreeBytes();
  const Tree before = treeOf("/var");
  const HolderReport report =
      workers_->purge(definition_.name, "/var", client::most_urgent, UINT64_MAX, limits());
  EXPECT_TRUE(report.complete);
  const auto measured = static_cast<double>(volume_->settledFreeBytes() - free_before);
  EXPECT_GT(report.freed(), mebibyte);
  EXPECT_NEAR(static_cast<double>(report.freed()), measured, measured / 100);
  EXPECT_NEAR(static_cast<double>(named.bytes), measured, measured / 100);

  const Tree after = treeOf("/var");
  expectSame(goneBetween(before, after), withContent(named.items, before));
  for (const std::string& path : cache.stays()) EXPECT_TRUE(after.contains(path)) << path;
}

std::vector<Case> casesOn(const std::string& volume) {
  std::vector<Case> cases;
  for (const auto& entry : fs::directory_iterator(SHIPPED_DEFINITIONS))
    cases.push_back({volume, entry.path()});
  std::sort(cases.begin(), cases.end(), [](const Case& a, const Case& b) { return a.file < b.file; });
  return cases;
}

std::string nameOf(const testing::TestParamInfo<Case>& parameter) {
  std::string name = parameter.param.file.stem();
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(OnExt4, ShippedPurge, testing::ValuesIn(casesOn("ext4")), nameOf);
INSTANTIATE_TEST_SUITE_P(OnXfs, ShippedPurge, testing::ValuesIn(casesOn("xfs")), nameOf);
INSTANTIATE_TEST_SUITE_P(OnBtrfs, ShippedPurge, testing::ValuesIn(casesOn("btrfs")), nameOf);

}  // namespace
}  // namespace kelvane::caches::tests
