// Surveys and purges of a holder for every user, each in a process of that user.

#include "caches/workers.h"

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <filesystem>
#include <vector>

#include "tests/caches/hanging_mount.h"
#include "tests/caches/machine.h"

namespace kelvane::caches::tests {
namespace {

namespace fs = std::filesystem;
using kelvane::tests::PrivateMount;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::size_t block = 4096;

class WorkersTest : public Machine {
 protected:
  WorkersTest() {
    addUser(alice);
    addUser(bob);
  }
  void fill(uid_t user) {
    addFile(user, ".cache/pip/old", block, 40 * day);
    addFile(user, ".cache/pip/http/week", 2 * block, 10 * day);
    addFile(user, ".cache/pip/http/today", 3 * block, 2 * hour);
    addFile(user, ".cache/pip/young", block, 60);
  }
};

TEST_F(WorkersTest, CountsWhatEachUserHasAtEachUrgency) {
  fill(alice);
  addFile(bob, ".cache/pip/old", block, 50 * day);
  start({pip()});
  const HolderReport report = survey();
  EXPECT_TRUE(report.complete);
  EXPECT_EQ(report.atUrgency(1).bytes, 0U);
  EXPECT_EQ(report.atUrgency(2).bytes, 2 * block);
  EXPECT_EQ(report.atUrgency(3).bytes, 4 * block);
  EXPECT_EQ(report.atUrgency(4).bytes, 7 * block);
  EXPECT_EQ(report.atUrgency(4).items, 4U);
  ASSERT_THAT(of(alice, report), SizeIs(1));
  EXPECT_EQ(of(alice, report).front().path, home(alice) + "/.cache/pip");
  EXPECT_EQ(of(alice, report).front().volume, volume());
  EXPECT_EQ(of(bob, report).front().survey.at_urgency[1].bytes, block);
}

TEST_F(WorkersTest, DeletesTheOldestOfAllUsersFirst) {
  for (int i = 1; i <= 20; ++i) {
    addFile(i % 2 == 0 ? alice : bob, ".cache/pip/" + std::to_string(i), block, i * 10 * day);
  }
  start({pip()});
  const HolderReport report = workers_->purge("pip", volume(), 3, 6 * block, limits());
  EXPECT_TRUE(report.complete);
  EXPECT_EQ(report.freed(), 6 * block);
  for (int i = 1; i <= 20; ++i) {
    EXPECT_EQ(has(i % 2 == 0 ? alice : bob, ".cache/pip/" + std::to_string(i)), i <= 14) << i;
  }
}

TEST_F(WorkersTest, DeletesNoMoreThanAskedByMoreThanAnItemOfEach) {
  for (int i = 0; i < 50; ++i) {
    addFile(alice, ".cache/pip/" + std::to_string(i), block, 100 * day);
    addFile(bob, ".cache/pip/" + std::to_string(i), block, 100 * day);
  }
  start({pip()});
  const HolderReport report = workers_->purge("pip", volume(), 2, 33 * block + 1, limits());
  EXPECT_GE(report.freed(), 33 * block + 1);
  EXPECT_LE(report.freed(), 35 * block);
  EXPECT_GT(of(alice, report).front().purge.freed, 0U);
  EXPECT_GT(of(bob, report).front().purge.freed, 0U);
}

TEST_F(WorkersTest, NamesBeforehandWhatItDeletes) {
  fill(alice);
  fill(bob);
  for (const int urgency : {2, 3, 4}) {
    for (int i = 0; i < 30; ++i) {
      addFile(i % 3 == 0 ? bob : alice, ".cache/pip/more/" + std::to_string(i), block, i * 2 * day + 30 * 60);
    }
    start({pip()});
    const auto before = describeTree(volume());
    const std::vector<std::string> named = list("pip", volume(), urgency, 8 * block);
    EXPECT_EQ(describeTree(volume()), before) << "a list changes nothing";
    const HolderReport report = workers_->purge("pip", volume(), urgency, 8 * block, limits());
    EXPECT_EQ(report.freed(), 8 * block);
    std::vector<std::string> gone;
    for (const auto& [path, description] : before) {
      if (!fs::exists(path)) gone.push_back(path);
    }
    EXPECT_THAT(named, testing::Not(IsEmpty()));
    EXPECT_EQ(gone, named) << urgency;
  }
}

TEST_F(WorkersTest, LetsUsersNarrowWhatGoes) {
  fill(alice);
  fill(bob);
  addText(alice, ".config/kelvane/caches.toml", "disabled = [\"pip\"]\n");
  addText(bob, ".config/kelvane/caches.toml", "[pip]\nexclude = [\"http/**\"]\n");
  start({pip()});
  const HolderReport report = workers_->purge("pip", {}, 4, UINT64_MAX, limits());
  EXPECT_THAT(reasonOf(alice, report), HasSubstr("disabled"));
  EXPECT_EQ(report.freed(), block);
  EXPECT_TRUE(has(alice, ".cache/pip/old"));
  EXPECT_FALSE(has(bob, ".cache/pip/old"));
  EXPECT_TRUE(has(bob, ".cache/pip/http/week"));
}

TEST_F(WorkersTest, LeavesTheDataOfAUserWhoseRulesAreWrong) {
  fill(alice);
  fill(bob);
  addText(alice, ".config/kelvane/caches.toml", "[pip]\n3 = \"never");
  start({pip()});
  const HolderReport report = workers_->purge("pip", {}, 4, UINT64_MAX, limits());
  EXPECT_NE(reasonOf(alice, report), "");
  EXPECT_TRUE(has(alice, ".cache/pip/old"));
  EXPECT_FALSE(has(bob, ".cache/pip/old"));
}

TEST_F(WorkersTest, KeepsWhatIsYoungerThanAnHourWhateverTheRulesSay) {
  fill(alice);
  Definition reckless = pip();
  reckless.rules.youngest = std::chrono::seconds(0);
  reckless.rules.ages = {std::chrono::seconds(0), std::chrono::seconds(0), std::chrono::seconds(0),
                         std::chrono::seconds(0)};
  start({reckless});
  static_cast<void>(workers_->purge("pip", {}, 1, UINT64_MAX, limits()));
  EXPECT_FALSE(has(alice, ".cache/pip/http/today"));
  EXPECT_TRUE(has(alice, ".cache/pip/young"));
}

TEST_F(WorkersTest, NeverWorksOnADirectoryThatNoHolderMayName) {
  addFile(alice, "Documents/old", block, 100 * day);
  addFile(alice, ".ssh/old", block, 100 * day);
  Definition wrong = pip();
  wrong.roots = {"~/Documents", "~/.ssh"};
  start({wrong});
  const HolderReport report = workers_->purge("pip", {}, 4, UINT64_MAX, limits());
  ASSERT_THAT(of(alice, report), SizeIs(2));
  for (const RootReport& root : of(alice, report)) EXPECT_NE(root.reason, "");
  EXPECT_TRUE(has(alice, "Documents/old"));
  EXPECT_TRUE(has(alice, ".ssh/old"));
}

TEST_F(WorkersTest, AsksEachRootOnItsOwnVolumeOnly) {
  addUser(carol);
  const PrivateMount second = PrivateMount::tmpfs(home(bob), "16m");
  const PrivateMount third = PrivateMount::tmpfs(home(carol), "16m");
  for (const uid_t user : {bob, carol}) {
    ::chown(home(user).c_str(), user, user);
    ::chmod(home(user).c_str(), 0700);
  }
  for (const uid_t user : {alice, bob, carol}) addFile(user, ".cache/pip/old", block, 50 * day);
  start({pip()});
  const HolderReport all = survey();
  EXPECT_EQ(all.atUrgency(2).bytes, 3 * block);
  EXPECT_EQ(of(carol, all).front().volume, home(carol));
  EXPECT_EQ(survey("pip", home(bob)).atUrgency(2).bytes, block);
  EXPECT_THAT(list("pip", home(bob), 2, UINT64_MAX), ElementsAre(home(bob) + "/.cache/pip/old"));
  EXPECT_EQ(workers_->purge("pip", home(bob), 4, UINT64_MAX, limits()).freed(), block);
  EXPECT_TRUE(has(alice, ".cache/pip/old"));
  EXPECT_FALSE(has(bob, ".cache/pip/old"));
  EXPECT_TRUE(has(carol, ".cache/pip/old"));
  EXPECT_EQ(survey("pip", "/nonexistent").reason, "there is no such directory on this volume");
}

TEST_F(WorkersTest, DoesASystemHoldersWorkAsTheOwnerOfEachRoot) {
  const PrivateMount var_cache = PrivateMount::tmpfs("/var/cache", "16m");
  fs::create_directories("/var/cache/apt/archives");
  fs::create_directories("/var/cache/man");
  makeFile("/var/cache/apt/archives/a.deb", block, 50 * day);
  makeFile("/var/cache/man/page", block, 50 * day);
  giveTo(6, "/var/cache/man");
  ::chmod("/var/cache/man", 0700);
  Definition system = pip();
  system.name = "system";
  system.owner = Owner::system;
  system.roots = {"/var/cache/apt/archives", "/var/cache/man", "/var/cache/missing"};
  start({system});
  const HolderReport report = workers_->purge("system", "/var/cache", 4, UINT64_MAX, limits());
  EXPECT_TRUE(report.complete);
  ASSERT_THAT(report.roots, SizeIs(2)) << report.reason;
  EXPECT_EQ(report.freed(), 2 * block) << report.roots[0].reason << report.roots[1].reason;
  EXPECT_THAT(of(0, report), SizeIs(1));
  EXPECT_EQ(of(6, report).front().path, "/var/cache/man");
  EXPECT_FALSE(fs::exists("/var/cache/man/page"));
}

TEST_F(WorkersTest, SaysWhyAHolderGivesNothing) {
  Definition off = pip();
  off.enabled = false;
  start({off});
  EXPECT_THAT(survey("pip").reason, HasSubstr("disabled"));
  EXPECT_THAT(survey("npm").reason, HasSubstr("unknown holder \"npm\""));
  start({pip()});
  EXPECT_EQ(survey("pip").reason, "there is no such directory");
}

TEST_F(WorkersTest, SkipsHomesThatAreNotUsersOwnWithTheReason) {
  addUser(61'010, "/nonexistent");
  addUser(61'011, volume() + "/home/missing");
  addUser(61'012, home(alice));
  addUser(61'013, volume() + "/passwd");
  addUser(61'014, "relative");
  fill(alice);
  ::chmod(home(alice).c_str(), 0755);
  start({pip()});
  const HolderReport report = survey();
  EXPECT_THAT(reasonOf(61'010, report), HasSubstr("not a user's own"));
  EXPECT_THAT(reasonOf(61'011, report), HasSubstr("No such file"));
  EXPECT_EQ(reasonOf(61'012, report), home(alice) + " belongs to user 61001");
  EXPECT_THAT(reasonOf(61'013, report), HasSubstr("not a directory"));
  EXPECT_THAT(reasonOf(61'014, report), HasSubstr("absolute"));
  EXPECT_EQ(report.atUrgency(2).bytes, block);
}

TEST_F(WorkersTest, LeavesACacheWhoseProgramRuns) {
  fill(alice);
  fill(bob);
  addText(alice, ".config/tool/running", "");
  Definition busy = pip();
  busy.in_use = {{InUse::Kind::exists, "~/.config/tool/running"}};
  start({busy});
  const HolderReport report = workers_->purge("pip", {}, 4, UINT64_MAX, limits());
  EXPECT_EQ(reasonOf(alice, report), "~/.config/tool/running exists");
  EXPECT_TRUE(has(alice, ".cache/pip/old"));
  EXPECT_FALSE(has(bob, ".cache/pip/old"));
}

TEST_F(WorkersTest, LeavesRootsThatAreLinksOrAnothersDirectory) {
  fill(bob);
  fs::create_directories(home(alice) + "/.cache");
  fs::create_directory_symlink(home(bob) + "/.cache/pip", home(alice) + "/.cache/pip");
  fs::create_directories(home(alice) + "/.npm/_cacache");
  makeFile(home(alice) + "/.npm/_cacache/old", block, 50 * day);
  Definition two = pip();
  two.roots = {"~/.cache/pip", "~/.npm/_cacache"};
  giveTo(alice, home(alice));
  ::chown((home(alice) + "/.npm/_cacache").c_str(), bob, bob);
  ::chmod((home(alice) + "/.npm/_cacache").c_str(), 0777);
  start({two});
  const HolderReport report = workers_->purge("pip", {}, 4, UINT64_MAX, limits());
  std::vector<std::string> reasons;
  for (const RootReport& root : of(alice, report)) reasons.push_back(root.reason);
  EXPECT_THAT(reasons, ElementsAre("it is, or leads through, a symbolic link", "it belongs to user 61002"));
  EXPECT_TRUE(has(alice, ".npm/_cacache/old"));
}

TEST_F(WorkersTest, SkipsAHomeThatItsUserCannotRead) {
  fill(alice);
  fill(bob);
  ::chmod(home(bob).c_str(), 0);
  start({pip()});
  const HolderReport report = survey();
  EXPECT_THAT(reasonOf(bob, report), HasSubstr("Permission denied"));
  EXPECT_EQ(report.atUrgency(4).bytes, 6 * block);
}

TEST_F(WorkersTest, NeverTouchesAHomeThatHangs) {
  fill(alice);
  HangingMount hanging(home(bob), bob);
  start({pip()});
  const HolderReport report = survey();
  EXPECT_TRUE(report.complete);
  EXPECT_THAT(reasonOf(bob, report), HasSubstr("may not answer"));
  EXPECT_EQ(report.atUrgency(4).bytes, 6 * block);
  EXPECT_EQ(hanging.requests(), 0);
}

TEST_F(WorkersTest, LeavesAHomeOnAReadOnlyVolume) {
  const PrivateMount second = PrivateMount::tmpfs(home(bob), "16m");
  ::chown(home(bob).c_str(), bob, bob);
  fill(bob);
  fill(alice);
  ASSERT_EQ(::mount(nullptr, home(bob).c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  start({pip()});
  const HolderReport report = survey();
  EXPECT_NE(reasonOf(bob, report), "");
  EXPECT_EQ(report.atUrgency(4).bytes, 6 * block);
}

}  // namespace
}  // namespace kelvane::caches::tests
