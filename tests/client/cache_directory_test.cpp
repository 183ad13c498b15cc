// Cache directories of files: ages, urgencies, amounts, floors, names, and what stays.

#include "kelvane/cache_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "client/hard_links.h"
#include "platform/foundation/file_descriptor.h"
#include "tests/client/cache_tree.h"
#include "tests/support/ordinary_rights.h"
#include "tests/support/private_mounts.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;
using client::AgeCut;
using client::CacheDirectory;
using client::CachePurge;
using client::CacheRules;
using client::CacheStay;
using client::CacheSurvey;
using testing::ElementsAre;
using testing::IsEmpty;

const bool private_mounts = enterPrivateMounts();
const bool a_year_ahead = advanceAYear();

class ACache : public testing::Test {
 protected:
  /// Purges, and expects that exactly the listed files go, with the same figures.
  CachePurge purgeAsListed(const CacheRules& rules, int urgency = 4, AgeCut cut = all_ages,
                           std::uint64_t amount = everything) {
    const auto before = cache_.files();
    const auto named = cache_.list(rules, urgency, cut, amount);
    const CachePurge purged = cache_.purge(rules, urgency, cut, amount);
    const auto after = cache_.files();
    std::vector<std::string> gone;
    std::set_difference(before.begin(), before.end(), after.begin(), after.end(), std::back_inserter(gone));
    EXPECT_EQ(named, gone);
    EXPECT_EQ(cache_.listed().freed, purged.freed);
    EXPECT_EQ(cache_.listed().items, purged.items);
    EXPECT_EQ(cache_.listed().end, purged.end);
    return purged;
  }

  const CacheTree cache_;
  const CacheRules rules_ = rulesOfDays({-1, 30, 7, 0});
  int named_ = 0;
};

TEST_F(ACache, IsCountedForAllUrgenciesByOneWalk) {
  const std::uint64_t old = cache_.add("old", 100 * day) + cache_.add("sub/old", 31 * day, 100'000);
  const std::uint64_t middle = cache_.add("middle", 8 * day);
  const std::uint64_t young = cache_.add("young", 2 * hour);
  cache_.add("new", 10);
  const CacheSurvey survey = cache_.survey(rules_);
  EXPECT_TRUE(survey.complete);
  EXPECT_EQ(survey.at_urgency[0].items, 0U);
  EXPECT_EQ(survey.at_urgency[1].bytes, old);
  EXPECT_EQ(survey.at_urgency[1].items, 2U);
  EXPECT_EQ(survey.at_urgency[2].bytes, old + middle);
  EXPECT_EQ(survey.at_urgency[3].bytes, old + middle + young);
  EXPECT_EQ(survey.at_urgency[3].items, 4U);
  EXPECT_EQ(stays(survey, CacheStay::tooYoung).items, 1U);
}

TEST_F(ACache, GivesUpWhatItsUrgencyAllowsAndKeepsItsDirectories) {
  const std::uint64_t old = cache_.add("old", 100 * day) + cache_.add("sub/old", 31 * day);
  cache_.add("sub/middle", 8 * day);
  EXPECT_THAT(cache_.list(rules_, 1), IsEmpty());
  EXPECT_EQ(cache_.purge(rules_, 1).files, 0U);
  const CachePurge purged = purgeAsListed(rules_, 2);
  EXPECT_EQ(purged.end, CachePurge::End::nothingLeft);
  EXPECT_EQ(purged.freed, old);
  EXPECT_EQ(purged.files, 2U);
  EXPECT_THAT(cache_.files(), ElementsAre("sub/middle"));
}

TEST_F(ACache, AllowsAtAHigherUrgencyWhatALowerOneDoes) {
  cache_.add("old", 31 * day);
  EXPECT_EQ(cache_.survey(rulesOfDays({30, -1, 60, -1})).at_urgency[3].items, 1U);
  EXPECT_EQ(cache_.purge(rulesOfDays({30, -1, 60, -1}), 3).items, 1U);
}

TEST_F(ACache, GivesUpTheOldestAsFarAsTheAmountNeeds) {
  std::vector<std::uint64_t> bytes;
  for (const int age : {200, 150, 100, 80, 60})
    bytes.push_back(cache_.add(std::to_string(age), age * day, 8192));
  const CacheSurvey survey = cache_.survey(rules_);
  const AgeCut cut = survey.cut(2, bytes[0] + 1);
  EXPECT_EQ(survey.bytesUpTo(2, cut), bytes[0] + bytes[1]);
  const CachePurge purged = purgeAsListed(rules_, 2, cut, bytes[0] + 1);
  EXPECT_EQ(purged.end, CachePurge::End::amountFreed);
  EXPECT_THAT(cache_.files(), ElementsAre("100", "60", "80"));
}

TEST_F(ACache, HasAgesInTheirBucketsOverTheWholeRange) {
  const std::uint64_t bytes = cache_.add("a", 250 * day) + cache_.add("b", 249 * day);
  const CacheSurvey survey = cache_.survey(rules_);
  EXPECT_EQ(survey.cut(1, 1).newest, INT64_MIN) << "nothing may go";
  EXPECT_EQ(survey.cut(4, everything).newest, survey.newest_at_urgency[3]);
  const AgeCut cut = survey.cut(4, 1);
  EXPECT_EQ(survey.bytesUpTo(4, cut), bytes) << "a day in 250 is within one bucket";
  EXPECT_GE(cut.newest, survey.taken_at - 250 * day);
  EXPECT_LE(cut.newest, survey.taken_at - 235 * day);
}

TEST_F(ACache, GoesByTheNewestOfThreeTimes) {
  for (const char* name : {"modified", "accessed", "none"}) cache_.add(name, 100 * day);
  const timespec old{client::cacheTime() - 100 * day, 0};
  const timespec young{client::cacheTime() - 2 * day, 0};
  const timespec modified[] = {old, young};
  const timespec accessed[] = {young, old};
  ::utimensat(AT_FDCWD, cache_.path("modified").c_str(), modified, 0);
  ::utimensat(AT_FDCWD, cache_.path("accessed").c_str(), accessed, 0);
  EXPECT_EQ(purgeAsListed(rules_, 2).files, 1U);
  EXPECT_THAT(cache_.files(), ElementsAre("accessed", "modified"));
  const CacheRules older = rulesOfDays({-1, -1, -1, 370});
  cache_.setAge("modified", 400 * day);
  EXPECT_EQ(purgeAsListed(older).files, 0U) << "its status was changed a moment ago, a year before the clock";
}

TEST_F(ACache, KeepsWhatIsYoungerThanTheYoungestAndWhatIsFromTheFuture) {
  cache_.add("young", hour - 10);
  cache_.add("future", -5 * day);
  EXPECT_EQ(cache_.survey(rules_).at_urgency[3].items, 0U);
  EXPECT_EQ(purgeAsListed(rules_).files, 0U);
  CacheRules any = rules_;
  any.youngest = std::chrono::seconds(0);
  EXPECT_EQ(purgeAsListed(any).files, 1U);
  EXPECT_THAT(cache_.files(), ElementsAre("future"));
}

TEST_F(ACache, CountsAFileWithSeveralNamesOnceAllOfThemGo) {
  const std::uint64_t bytes = cache_.add("one", 40 * day, 70'000);
  fs::create_directory(cache_.path("sub"));
  fs::create_hard_link(cache_.path("one"), cache_.path("sub/two"));
  fs::create_hard_link(cache_.path("one"), cache_.path("three"));
  cache_.add("shared", 40 * day);
  fs::create_hard_link(cache_.path("shared"), cache_.outside("elsewhere"));
  const CacheSurvey survey = cache_.survey(rules_);
  EXPECT_EQ(survey.at_urgency[1].bytes, bytes);
  EXPECT_EQ(survey.at_urgency[1].items, 3U);
  EXPECT_EQ(stays(survey, CacheStay::linkedElsewhere).items, 1U);
  const CachePurge purged = purgeAsListed(rules_, 2);
  EXPECT_EQ(purged.freed, bytes);
  EXPECT_EQ(purged.items, 3U);
  EXPECT_THAT(cache_.files(), ElementsAre("shared"));
}

TEST_F(ACache, KeepsAllNamesOfAFileOfWhichOneIsExcluded) {
  cache_.add("one");
  fs::create_hard_link(cache_.path("one"), cache_.path("keep"));
  CacheRules rules = rules_;
  rules.exclude = {"keep"};
  EXPECT_EQ(purgeAsListed(rules).files, 0U);
  EXPECT_EQ(stays(cache_.survey(rules), CacheStay::linkedElsewhere).items, 1U);
}

TEST_F(ACache, StopsBetweenFilesWithSeveralNamesNotWithinOne) {
  std::uint64_t each = 0;
  for (int file = 0; file < 20; ++file) {
    const std::string name = std::to_string(file);
    each = cache_.add(name);
    for (const char* other : {"a", "b"}) fs::create_hard_link(cache_.path(name), cache_.path(name + other));
  }
  const CachePurge purged = purgeAsListed(rules_, 4, all_ages, 5 * each - 1);
  EXPECT_EQ(purged.end, CachePurge::End::amountFreed);
  EXPECT_EQ(purged.freed, 5 * each);
  EXPECT_EQ(purged.files, 15U);
  for (const std::string& name : cache_.files()) EXPECT_EQ(fs::hard_link_count(cache_.path(name)), 3U);
}

TEST_F(ACache, KeepsItsNewestFilesToTheFile) {
  for (int file = 1; file <= 20; ++file) cache_.add(std::to_string(file), (10 + file) * day);
  CacheRules rules = rules_;
  rules.keep_newest = 3;
  const CacheSurvey survey = cache_.survey(rules);
  EXPECT_EQ(survey.at_urgency[3].items, 17U);
  EXPECT_EQ(stays(survey, CacheStay::floor).items, 3U);
  EXPECT_EQ(purgeAsListed(rules).files, 17U);
  EXPECT_THAT(cache_.files(), ElementsAre("1", "2", "3"));
  EXPECT_EQ(purgeAsListed(rules).files, 0U);
}

TEST_F(ACache, CountsTheYoungAmongTheNewestThatStay) {
  cache_.add("young", 10);
  cache_.add("old", 100 * day);
  cache_.add("older", 200 * day);
  CacheRules rules = rules_;
  rules.keep_newest = 2;
  EXPECT_EQ(cache_.survey(rules).at_urgency[3].items, 1U);
  EXPECT_EQ(purgeAsListed(rules).files, 1U);
  EXPECT_THAT(cache_.files(), ElementsAre("old", "young"));
}

TEST_F(ACache, KeepsTheNewestBytes) {
  std::uint64_t each = 0;
  for (int file = 1; file <= 20; ++file) each = cache_.add(std::to_string(file), (10 << (file / 5)) * day);
  CacheRules rules = rules_;
  rules.keep_bytes = 5 * each;
  const CacheSurvey survey = cache_.survey(rules);
  EXPECT_EQ(survey.at_urgency[3].bytes, 11 * each) << "four of ten days and five of twenty stay";
  EXPECT_EQ(survey.at_urgency[1].bytes, 11 * each);
  EXPECT_EQ(purgeAsListed(rules).freed, 11 * each);
}

TEST_F(ACache, StaysWhereItIsPinned) {
  cache_.add("old");
  cache_.add("sub/deeper/old");
  cache_.add("sub/.kelvane-keep");
  EXPECT_EQ(purgeAsListed(rules_).files, 1U);
  EXPECT_EQ(stays(cache_.survey(rules_), CacheStay::pinned).items, 1U);
  cache_.add(".kelvane-keep");
  cache_.add("other");
  EXPECT_EQ(purgeAsListed(rules_).files, 0U);
  EXPECT_TRUE(cache_.exists("other"));
}

TEST_F(ACache, MayConsistOfTaggedDirectoriesOnly) {
  const std::string tag = "Signature: 8a477f597d28d172789f06886806bc55\n# a comment\n";
  for (const char* name : {"loose", "tagged/a", "tagged/sub/b", "forged/c", "linked/d"}) cache_.add(name);
  cache_.directory().write("cache/tagged/CACHEDIR.TAG", tag);
  cache_.directory().write("cache/forged/CACHEDIR.TAG", " " + tag);
  cache_.directory().write("tag", tag);
  fs::create_symlink(cache_.outside("tag"), cache_.path("linked/CACHEDIR.TAG"));
  CacheRules rules = rules_;
  rules.tagged_only = true;
  EXPECT_THAT(cache_.list(rules), ElementsAre("tagged/a", "tagged/sub/b"));
  EXPECT_EQ(purgeAsListed(rules).files, 2U);
  EXPECT_TRUE(cache_.exists("tagged/CACHEDIR.TAG")) << "what is younger must be able to go later";
}

TEST_F(ACache, LeavesWhatIsNotAFileAndWhatBelongsToOthers) {
  cache_.add("theirs");
  fs::create_symlink(cache_.root(), cache_.path("link"));
  ASSERT_EQ(::mkfifo(cache_.path("pipe").c_str(), 0600), 0);
  std::uint64_t foreign = 2;
  if (::chown(cache_.path("theirs").c_str(), 12345, 12345) == 0) {
    ++foreign;
  } else {
    fs::remove(cache_.path("theirs"));
  }
  EXPECT_EQ(stays(cache_.survey(rules_), CacheStay::foreign).items, foreign);
  EXPECT_EQ(purgeAsListed(rules_).files, 0U);
}

TEST_F(ACache, GivesUpFilesOfAnyName) {
  for (const char* name : {"new\nline", "-rf", "...", " ", "*", "\xff\xfe", "a\\b"}) cache_.add(name);
  cache_.add(std::string(255, 'n') + "/" + std::string(255, 'm'));
  EXPECT_EQ(purgeAsListed(rules_).files, 8U);
}

TEST_F(ACache, EntersNoMount) {
  ASSERT_TRUE(private_mounts) << "this machine allows no mount namespace of one's own";
  for (const char* name : {"tmpfs", "bound"}) fs::create_directory(cache_.path(name));
  cache_.directory().write("outside/file", "kept");
  const PrivateMount other = PrivateMount::tmpfs(cache_.path("tmpfs"), "1m");
  const PrivateMount bound("none", cache_.outside("outside"), cache_.path("bound"), MS_BIND);
  cache_.add("tmpfs/file");
  cache_.add("own");
  EXPECT_EQ(stays(cache_.survey(rules_), CacheStay::foreign).items, 2U);
  EXPECT_EQ(purgeAsListed(rules_).files, 1U);
  EXPECT_TRUE(cache_.exists("tmpfs/file"));
  EXPECT_TRUE(fs::exists(cache_.outside("outside/file")));
}

TEST_F(ACache, CannotBeOpenedWhereItIsALinkAMountPointOrNotThere) {
  ASSERT_TRUE(private_mounts) << "this machine allows no mount namespace of one's own";
  fs::create_symlink(cache_.root(), cache_.outside("link"));
  cache_.directory().write("file", "x");
  fs::create_directory(cache_.outside("mount"));
  const PrivateMount mount = PrivateMount::tmpfs(cache_.outside("mount"), "1m");
  for (const char* name : {"link", "file", "mount", "nowhere"})
    EXPECT_FALSE(CacheDirectory::open(cache_.outside(name), rules_)) << name;
  EXPECT_TRUE(CacheDirectory::open(cache_.root(), rules_));
}

TEST_F(ACache, CannotBeOpenedWithInvalidRules) {
  EXPECT_FALSE(CacheDirectory::open(cache_.root(), CacheRules{})) << "no age";
  const auto refused = [&](const std::function<void(CacheRules&)>& change) {
    CacheRules rules = rules_;
    change(rules);
    return !CacheDirectory::open(cache_.root(), rules);
  };
  EXPECT_TRUE(refused([](CacheRules& rules) { rules.ages[1] = std::chrono::seconds(-1); }));
  EXPECT_TRUE(refused([](CacheRules& rules) { rules.include = {"a/[b"}; }));
  EXPECT_TRUE(refused([](CacheRules& rules) { rules.exclude = {"../a"}; }));
  EXPECT_TRUE(refused([](CacheRules& rules) { rules.unit = client::CacheUnit::directory; }));
  EXPECT_TRUE(refused([](CacheRules& rules) { rules.markers = {"a/b"}; }));
  EXPECT_TRUE(refused([](CacheRules& rules) { rules.locks = {{client::CacheLock::Kind::flock, ""}}; }));
}

TEST_F(ACache, DeletesNothingOnceItIsTooLateOrCancelled) {
  cache_.add("old");
  auto limits = cache_.limits();
  limits.deadline = std::chrono::steady_clock::now();
  EXPECT_EQ(cache_.open(rules_)->purge(4, all_ages, everything, limits).end, CachePurge::End::tooLate);
  EXPECT_FALSE(cache_.open(rules_)->survey(limits).complete);
  *cache_.cancelled = true;
  EXPECT_EQ(cache_.purge(rules_).end, CachePurge::End::cancelled);
  EXPECT_FALSE(cache_.survey(rules_).complete);
  EXPECT_TRUE(cache_.exists("old"));
}

TEST_F(ACache, EndsWithWhatWentWhenItIsCancelledInTheMiddle) {
  for (int file = 0; file < 10; ++file) cache_.add(std::to_string(file));
  const auto listed =
      cache_.open(rules_)->list(4, all_ages, everything, cache_.limits(), [&](const auto& item) {
        *cache_.cancelled = item.bytes > 0 && ++named_ == 3;
        return true;
      });
  EXPECT_EQ(listed.end, CachePurge::End::cancelled);
  EXPECT_EQ(listed.items, 3U);
  *cache_.cancelled = false;
  EXPECT_EQ(cache_.open(rules_)
                ->list(4, all_ages, everything, cache_.limits(), [](const auto&) { return false; })
                .items,
            1U)
      << "the listing stops when its callback returns false";
}

TEST_F(ACache, CountsWhatIsHeldOpenApartFromWhatIsFree) {
  const std::uint64_t bytes = cache_.add("held", 100 * day, 100'000);
  const std::uint64_t free = cache_.add("free", 100 * day, 100'000);
  const FileDescriptor holding(::open(cache_.path("held").c_str(), O_RDONLY | O_CLOEXEC));
  const CachePurge purged = cache_.purge(rules_);
  EXPECT_EQ(purged.held, bytes);
  EXPECT_EQ(purged.freed, free);
}

TEST_F(ACache, NamesNothingThatItMayNotDelete) {
  cache_.add("free");
  cache_.add("read-only/a");
  cache_.add("closed/b");
  fs::permissions(cache_.path("read-only"), fs::perms(0500));
  fs::permissions(cache_.path("closed"), fs::perms(0000));
  {
    const OrdinaryRights rights;
    const CacheSurvey survey = cache_.survey(rules_);
    EXPECT_EQ(survey.at_urgency[3].items, 1U);
    EXPECT_EQ(stays(survey, CacheStay::unreadable).items, 2U);
    EXPECT_FALSE(survey.complete);
    EXPECT_EQ(survey.error, EACCES);
    EXPECT_THAT(cache_.list(rules_), ElementsAre("free"));
    EXPECT_EQ(cache_.purge(rules_).files, 1U);
  }
  for (const char* name : {"read-only", "closed"}) fs::permissions(cache_.path(name), fs::perms(0700));
}

TEST_F(ACache, KeepsMoreOfTheNewestThanCanBeCountedExactlyByTheirAges) {
  for (int file = 1; file <= 20; ++file) cache_.add(std::to_string(file), (10 + file) * day);
  CacheRules rules = rules_;
  rules.keep_newest = 5000;
  EXPECT_EQ(stays(cache_.survey(rules), CacheStay::floor).items, 20U);
  EXPECT_EQ(purgeAsListed(rules).files, 0U);
}

TEST(AMillionLinkedFiles, AreKnownUpToABound) {
  client::HardLinks links;
  for (std::uint64_t number = 1; number <= client::HardLinks::most_files; ++number)
    ASSERT_NE(links.find(1, number, 2), nullptr);
  EXPECT_EQ(links.find(1, client::HardLinks::most_files + 1, 2), nullptr);
  client::LinkedFile* const known = links.find(1, 77, 2);
  ASSERT_NE(known, nullptr);
  EXPECT_EQ(known->number, 77U);
  EXPECT_EQ(links.known(2, 77), nullptr);
  EXPECT_EQ(client::HardLinks().find(1, 1, client::HardLinks::most_names + 1), nullptr);
}

TEST_F(ACache, OnAReadOnlyVolumeFailsAndKeepsAll) {
  ASSERT_TRUE(private_mounts) << "this machine allows no mount namespace of one's own";
  const PrivateMount volume = PrivateMount::tmpfs(cache_.root(), "4m");
  cache_.add("sub/old");
  const std::string sub = cache_.path("sub");
  ASSERT_EQ(::mount(nullptr, cache_.root().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  auto opened = CacheDirectory::open(sub, rules_);
  ASSERT_TRUE(opened) << opened.error().reason;
  const CachePurge purged = (*opened)->purge(4, all_ages, everything, cache_.limits());
  EXPECT_EQ(purged.end, CachePurge::End::failed);
  EXPECT_EQ(purged.error, EROFS);
  EXPECT_TRUE(cache_.exists("sub/old"));
}

}  // namespace
}  // namespace kelvane::tests
