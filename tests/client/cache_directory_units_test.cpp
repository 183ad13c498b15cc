// Units that are directories: they go whole, or stay whole.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <unistd.h>
#include <array>
#include <map>
#include <thread>

#include "client/unit_removal.h"
#include "platform/foundation/file_descriptor.h"
#include "tests/client/cache_tree.h"
#include "tests/support/ordinary_rights.h"
#include "tests/support/private_mounts.h"
#include "tests/support/stepped_process.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;
using client::CacheLock;
using client::CachePurge;
using client::CacheRules;
using client::CacheStay;
using testing::ElementsAre;
using testing::IsEmpty;

class ACacheOfUnits : public testing::Test {
 protected:
  ACacheOfUnits() {
    rules_.unit = client::CacheUnit::directory;
    rules_.include = {"src/*/*"};
  }

  /// Three files and a link in three directories; returns the bytes.
  std::uint64_t addUnit(const std::string& name, std::int64_t age = 300 * day) const {
    const std::uint64_t bytes = cache_.add(name + "/a", age) + cache_.add(name + "/sub/b", age, 80'000) +
                                cache_.add(name + "/sub/deeper/.c", age + day);
    fs::create_symlink("../a", cache_.path(name + "/sub/link"));
    return bytes + bytesOfDirectories(cache_.path(name));
  }
  /// Names of all units and leftovers.
  [[nodiscard]] std::vector<std::string> units() const {
    std::vector<std::string> names;
    for (const auto& among : fs::directory_iterator(cache_.path("src"))) {
      if (!among.is_directory()) continue;
      for (const auto& unit : fs::directory_iterator(among))
        names.push_back(unit.path().string().substr(cache_.path("src/").size()));
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  CachePurge purgeAsListed(int urgency = 4, client::AgeCut cut = all_ages,
                           std::uint64_t amount = everything) {
    const auto before = units();
    auto named = cache_.list(rules_, urgency, cut, amount);
    const CachePurge purged = cache_.purge(rules_, urgency, cut, amount);
    const auto after = units();
    std::vector<std::string> gone;
    std::set_difference(before.begin(), before.end(), after.begin(), after.end(), std::back_inserter(gone));
    for (std::string& name : named) name.erase(0, 4);
    EXPECT_EQ(named, gone);
    EXPECT_EQ(cache_.listed().freed, purged.freed);
    EXPECT_EQ(cache_.listed().items, purged.items);
    return purged;
  }

  const CacheTree cache_;
  CacheRules rules_ = rulesOfDays({-1, 30, 7, 0});
};

TEST_F(ACacheOfUnits, GivesUpUnitsWholeWithTheirLinksAndReadOnlyDirectories) {
  const std::uint64_t bytes = addUnit("src/index/old");
  addUnit("src/index/young", 3 * day);
  cache_.add("src/loose");
  fs::permissions(cache_.path("src/index/old/sub"), fs::perms(0555));
  fs::permissions(cache_.path("src/index/old"), fs::perms(0555));
  const auto survey = cache_.survey(rules_);
  EXPECT_EQ(survey.at_urgency[1].bytes, bytes);
  EXPECT_EQ(survey.at_urgency[1].items, 1U);
  EXPECT_EQ(survey.at_urgency[3].items, 2U);
  const OrdinaryRights rights;
  const CachePurge purged = purgeAsListed(2);
  EXPECT_EQ(purged.freed, bytes);
  EXPECT_EQ(purged.items, 1U);
  EXPECT_EQ(purged.files, 3U);
  EXPECT_EQ(purged.failures, 0U);
  EXPECT_THAT(units(), ElementsAre("index/young"));
  EXPECT_TRUE(cache_.exists("src/loose") && cache_.exists("src/index/young/sub/deeper/.c"));
}

TEST_F(ACacheOfUnits, HasUnitsThatAreAsOldAsTheirNewestFile) {
  addUnit("src/index/used", 300 * day);
  cache_.setAge("src/index/used/sub/deeper/.c", 2 * day);
  EXPECT_EQ(purgeAsListed(3).items, 0U);
  EXPECT_EQ(stays(cache_.survey(rulesOfDays({30, -1, -1, -1})), CacheStay::tooYoung).items, 1U)
      << "and as files only one of three is young";
  EXPECT_EQ(purgeAsListed(4).items, 1U);
}

TEST_F(ACacheOfUnits, LeavesAUnitWholeThatHoldsWhatStays) {
  for (const char* name : {"pinned", "excluded", "pipe", "fine"}) addUnit(std::string("src/i/") + name);
  cache_.add("src/i/pinned/sub/.kelvane-keep");
  cache_.add("src/i/excluded/sub/deeper/precious.db");
  ASSERT_EQ(::mkfifo(cache_.path("src/i/pipe/sub/fifo").c_str(), 0600), 0);
  rules_.exclude = {"**/*.db"};
  EXPECT_EQ(purgeAsListed().items, 1U);
  EXPECT_THAT(units(), ElementsAre("i/excluded", "i/pinned", "i/pipe"));
  const auto survey = cache_.survey(rules_);
  for (const auto reason : {CacheStay::pinned, CacheStay::excluded, CacheStay::foreign})
    EXPECT_EQ(stays(survey, reason).items, 1U) << client::describe(reason);
}

TEST_F(ACacheOfUnits, LeavesAUnitWholeInWhichAnotherFileSystemIsMounted) {
  addUnit("src/i/unit");
  fs::create_directory(cache_.path("src/i/unit/mount"));
  const PrivateMount mount = PrivateMount::tmpfs(cache_.path("src/i/unit/mount"), "1m");
  EXPECT_EQ(purgeAsListed().items, 0U);
  EXPECT_TRUE(cache_.exists("src/i/unit/a"));
}

TEST_F(ACacheOfUnits, LeavesAUnitOfWhichAFileIsOpen) {
  addUnit("src/i/open");
  addUnit("src/i/closed");
  rules_.open_files_stay = true;
  const FileDescriptor open(::open(cache_.path("src/i/open/sub/b").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(purgeAsListed().items, 1U);
  EXPECT_THAT(units(), ElementsAre("i/open"));
}

TEST_F(ACacheOfUnits, LeavesAUnitOfWhichTheLockIsHeld) {
  for (const char* name : {"src/x/mod@v1", "src/x/mod@v2"}) addUnit(name);
  for (const char* version : {"v1", "v2"})
    cache_.directory().write(std::string("cache/locks/src/x/mod/") + version + ".lock", "");
  rules_.unit_locks = {{CacheLock::Kind::flock, "locks/{stem}/{version}.lock"}};
  const FileDescriptor lock(::open(cache_.path("locks/src/x/mod/v1.lock").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(lock.get(), LOCK_SH | LOCK_NB), 0);
  EXPECT_EQ(stays(cache_.survey(rules_), CacheStay::locked).items, 1U);
  EXPECT_EQ(purgeAsListed().items, 1U);
  EXPECT_THAT(units(), ElementsAre("x/mod@v1"));
}

TEST_F(ACacheOfUnits, FindsALockThatNamesNoUnitWithinTheUnit) {
  addUnit("src/x/building");
  addUnit("src/x/idle");
  for (const char* name : {"building", "idle"}) cache_.add(std::string("src/x/") + name + "/.lock");
  rules_.unit_locks = {{CacheLock::Kind::flock, ".lock"}};
  rules_.open_files_stay = true;
  const FileDescriptor lock(::open(cache_.path("src/x/building/.lock").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(lock.get(), LOCK_EX | LOCK_NB), 0);
  EXPECT_EQ(purgeAsListed().items, 1U) << "that the purge has the lock open itself says nothing";
  EXPECT_THAT(units(), ElementsAre("x/building"));
}

TEST_F(ACacheOfUnits, CountsAFileInSeveralUnitsWithTheLastOfThem) {
  const std::uint64_t bytes = addUnit("src/i/one") + addUnit("src/i/two");
  fs::create_hard_link(cache_.path("src/i/one/a"), cache_.path("src/i/two/linked"));
  EXPECT_EQ(cache_.survey(rules_).at_urgency[3].bytes, bytes);
  cache_.setAge("src/i/one/sub/b", 10 * day);
  const auto survey = cache_.survey(rules_);
  EXPECT_EQ(survey.at_urgency[1].items, 1U);
  EXPECT_EQ(survey.at_urgency[1].bytes, bytes / 2) << "without the file that the younger unit has as well";
  EXPECT_EQ(purgeAsListed(2).freed, bytes / 2);
  EXPECT_EQ(purgeAsListed(4).freed, bytes / 2);
  EXPECT_THAT(units(), IsEmpty());
}

TEST_F(ACacheOfUnits, KeepsItsNewestUnits) {
  for (int unit = 1; unit <= 6; ++unit) addUnit("src/i/" + std::to_string(unit), (40 + unit) * day);
  rules_.keep_newest = 2;
  EXPECT_EQ(cache_.survey(rules_).at_urgency[3].items, 4U);
  EXPECT_EQ(purgeAsListed().items, 4U);
  EXPECT_THAT(units(), ElementsAre("i/1", "i/2"));
}

TEST_F(ACacheOfUnits, StopsWithTheUnitThatBringsTheAmount) {
  std::uint64_t each = 0;
  for (int unit = 0; unit < 5; ++unit) each = addUnit("src/i/" + std::to_string(unit));
  const CachePurge purged = purgeAsListed(4, all_ages, each + 1);
  EXPECT_EQ(purged.end, CachePurge::End::amountFreed);
  EXPECT_EQ(purged.items, 2U);
  EXPECT_EQ(units().size(), 3U);
}

TEST_F(ACacheOfUnits, MayBeTaggedOnesOnly) {
  addUnit("work/target");
  addUnit("work/java/target");
  cache_.add("work/java/target/deeper/target/file");
  for (const char* name : {"work/target", "work/java/target/deeper/target"}) {
    cache_.directory().write(std::string("cache/") + name + "/CACHEDIR.TAG",
                             "Signature: 8a477f597d28d172789f06886806bc55");
  }
  rules_.include = {"**/target"};
  rules_.tagged_only = true;
  EXPECT_THAT(cache_.list(rules_), ElementsAre("work/java/target/deeper/target", "work/target"));
  EXPECT_EQ(cache_.purge(rules_).items, 2U);
  EXPECT_TRUE(cache_.exists("work/java/target/a"));
}

/// The inotify events of a directory and those in it, in order.
class Events {
 public:
  explicit Events(const std::vector<std::string>& directories) {
    for (const std::string& each : directories)
      ::inotify_add_watch(watch_.get(), each.c_str(), IN_DELETE | IN_MOVED_FROM);
  }
  std::vector<std::string> read() {
    std::vector<std::string> names;
    std::array<char, 65536> some{};
    const ssize_t length = ::read(watch_.get(), some.data(), some.size());
    for (ssize_t at = 0; at < length;) {
      const auto* const event = reinterpret_cast<const inotify_event*>(some.data() + at);
      if (event->len > 0) names.emplace_back(event->name);
      at += static_cast<ssize_t>(sizeof *event + event->len);
    }
    return names;
  }

 private:
  FileDescriptor watch_{::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)};
};

TEST_F(ACacheOfUnits, LosesAUnitsMarkersFirstThenItsNameThenTheRest) {
  cache_.add("src/i/unit/.ok");
  cache_.add("src/i/unit/other");
  fs::permissions(cache_.path("src/i/unit"), fs::perms(0555));
  rules_.markers = {".none", ".ok"};
  Events events({cache_.path("src/i"), cache_.path("src/i/unit")});
  EXPECT_EQ(purgeAsListed().items, 1U);
  const auto seen = events.read();
  ASSERT_EQ(seen.size(), 4U);
  EXPECT_THAT(std::vector(seen.begin(), seen.begin() + 3), ElementsAre(".ok", "unit", "other"));
  EXPECT_TRUE(client::isLeftoverName(seen.back())) << seen.back();
}

TEST_F(ACacheOfUnits, FinishesWhatAnInterruptedPurgeLeft) {
  addUnit("src/i/young", 2 * day);
  const std::uint64_t bytes = addUnit("src/i/.kelvane-purge-0123456789abcdef.tmp", 5 * day);
  addUnit("elsewhere/.kelvane-purge-0123456789abcdef.tmp");
  addUnit("src/i/.kelvane-purge-x.tmp", 2 * day);
  const auto survey = cache_.survey(rules_);
  EXPECT_EQ(survey.at_urgency[0].bytes, 0U) << "nothing goes at this urgency";
  EXPECT_EQ(survey.at_urgency[1].bytes, bytes) << "whatever its age";
  EXPECT_EQ(purgeAsListed(2, survey.cut(2, 1), 1).freed, bytes);
  EXPECT_THAT(units(), ElementsAre("i/.kelvane-purge-x.tmp", "i/young"));
  EXPECT_TRUE(cache_.exists("elsewhere/.kelvane-purge-0123456789abcdef.tmp/a"));
}

TEST_F(ACacheOfUnits, IsLeftWithAWholeUnitOrNoneWhenItIsCancelledInTheMiddle) {
  constexpr int files = 3000;
  std::uint64_t bytes = 0;
  bool interrupted = false;
  for (int attempt = 0; attempt < 20 && !interrupted; ++attempt) {
    *cache_.cancelled = false;
    for (int file = 0; file < files; ++file) bytes += cache_.add("src/i/unit/" + std::to_string(file));
    bytes += bytesOfDirectories(cache_.path("src/i/unit"));
    const FileDescriptor watch(::inotify_init1(IN_CLOEXEC));
    ::inotify_add_watch(watch.get(), cache_.path("src/i/unit").c_str(), IN_DELETE);
    std::thread cancelling([&] {
      std::array<char, 4096> events;
      EXPECT_GT(::read(watch.get(), events.data(), events.size()), 0);
      *cache_.cancelled = true;
    });
    const CachePurge purged = cache_.purge(rules_);
    cancelling.join();
    EXPECT_FALSE(cache_.exists("src/i/unit"));
    interrupted = purged.end == CachePurge::End::cancelled && purged.files < files;
    bytes -= purged.freed;
    EXPECT_EQ(units().size(), interrupted ? 1U : 0U);
  }
  ASSERT_TRUE(interrupted);
  *cache_.cancelled = false;
  EXPECT_EQ(cache_.survey(rules_).at_urgency[3].bytes, bytes);
  EXPECT_EQ(cache_.purge(rules_).freed, bytes) << "what went before was counted before";
  EXPECT_THAT(units(), IsEmpty());
}

/// Paths and contents of all regular files of a unit.
std::map<std::string, std::uintmax_t> contentOf(const std::string& unit) {
  std::map<std::string, std::uintmax_t> files;
  for (const auto& entry : fs::recursive_directory_iterator(unit))
    if (entry.is_regular_file()) files[entry.path().string().substr(unit.size())] = entry.file_size();
  return files;
}

TEST_F(ACacheOfUnits, IsNeverSeenWithHalfAUnitWhicheverSystemCallAProgramUsesItAt) {
  std::map<std::string, std::uintmax_t> whole;
  std::unique_ptr<client::CacheDirectory> directory;
  const auto purge = [&] {
    if (directory->purge(4, all_ages, everything, cache_.limits()).end == CachePurge::End::failed) ::_exit(1);
  };
  const auto makeUnit = [&] {
    fs::remove_all(cache_.path("src"));
    addUnit("src/i/unit");
    whole = contentOf(cache_.path("src/i/unit"));
    directory = cache_.open(rules_);
  };
  makeUnit();
  const int stops = SteppedProcess::run(purge, [&](int stop) {
    if (!cache_.exists("src/i/unit")) return true;
    EXPECT_EQ(contentOf(cache_.path("src/i/unit")), whole) << stop;
    return true;
  });
  int used = 0;
  for (int at = 1; at <= stops; ++at) {
    makeUnit();
    bool used_now = false;
    SteppedProcess::run(purge, [&](int stop) {
      if (stop != at) return true;
      used_now = cache_.exists("src/i/unit");
      if (used_now) cache_.setAge("src/i/unit/sub/b", 0);
      return false;
    });
    EXPECT_EQ(cache_.exists("src/i/unit"), used_now) << "used at stop " << at;
    if (used_now) {
      EXPECT_EQ(contentOf(cache_.path("src/i/unit")), whole);
    }
    used += used_now ? 1 : 0;
  }
  EXPECT_GT(used, 20);
  EXPECT_LT(used, stops);
}

}  // namespace
}  // namespace kelvane::tests
