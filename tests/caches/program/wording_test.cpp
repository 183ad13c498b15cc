#include "caches/program/wording.h"

#include <gtest/gtest.h>

namespace kelvane::tests {
namespace {

using namespace caches;
using client::CacheStay;

constexpr std::int64_t day = 86400;

Definition definition() {
  Definition npm;
  npm.name = "npm";
  npm.rules.ages = {std::nullopt, std::chrono::seconds(30 * day), std::chrono::seconds(7 * day),
                    std::nullopt};
  return npm;
}

RootReport keeping(CacheStay reason, std::uint64_t bytes, std::uint64_t items) {
  RootReport root;
  root.path = "/home/alice/.npm/_cacache";
  root.survey.complete = true;
  root.survey.stays.at(static_cast<std::size_t>(reason)) = {bytes, items};
  return root;
}

TEST(AnAge, IsSaidInTheGreatestUnitThatHoldsItTwice) {
  EXPECT_EQ(ageText(30 * day), "30 days");
  EXPECT_EQ(ageText(day), "1 day");
  EXPECT_EQ(ageText(47 * 3600), "47 hours");
  EXPECT_EQ(ageText(3600), "1 hour");
  EXPECT_EQ(ageText(150), "2 minutes");
  EXPECT_EQ(ageText(61), "61 seconds");
  EXPECT_EQ(ageText(1), "1 second");
  EXPECT_EQ(ageText(-5), "0 seconds");
}

TEST(APath, IsOneLineWhateverItHolds) {
  EXPECT_EQ(shown("content-v2/sha512/été"), "content-v2/sha512/été");
  EXPECT_EQ(shown("a\nb\tc\x1b[31m"), "a\\x0ab\\x09c\\x1b[31m");
  EXPECT_EQ(shown("\xff\xfe"), "\\xff\\xfe");
  EXPECT_EQ(shown("a\\x0ab"), "a\\x5cx0ab") << "not what a new line looks like";
  EXPECT_EQ(shown("gpj.\u202Eexe"), "gpj.\\xe2\\x80\\xaeexe") << "no turning of the text's direction";
  EXPECT_EQ(shown(std::string("a\0b", 3)), "a\\x00b");
}

TEST(AZero, SaysThatAllIsTooYoung) {
  EXPECT_EQ(zeroReason(definition(), keeping(CacheStay::tooYoung, 100, 1)), "all younger than 7 days");
}

TEST(AZero, SaysThatALockIsHeldBeforeAnythingElse) {
  RootReport root = keeping(CacheStay::tooYoung, 1 << 30, 9);
  root.survey.stays.at(static_cast<std::size_t>(CacheStay::locked)) = {0, 1};
  EXPECT_EQ(zeroReason(definition(), root), std::string("in use: ") + client::describe(CacheStay::locked));
}

TEST(AZero, SaysWhatKeepsTheMost) {
  RootReport root = keeping(CacheStay::tooYoung, 100, 1);
  root.survey.stays.at(static_cast<std::size_t>(CacheStay::excluded)) = {200, 1};
  EXPECT_EQ(zeroReason(definition(), root), client::describe(CacheStay::excluded));
}

TEST(AZero, SaysThatThereIsNothing) {
  RootReport root;
  root.survey.complete = true;
  EXPECT_EQ(zeroReason(definition(), root), "empty");
  EXPECT_EQ(zeroReason(definition(), HolderReport{}), "no such directory");
}

TEST(AZero, OfAHolderIsTheReasonOfARootThatIsThere) {
  HolderReport report;
  report.roots.resize(1);
  report.roots.front().reason = "no such directory";
  report.roots.push_back(keeping(CacheStay::tooYoung, 100, 1));
  EXPECT_EQ(zeroReason(definition(), report), "all younger than 7 days");
  report.roots.back().survey.at_urgency.at(3) = {10, 1};
  EXPECT_EQ(zeroReason(definition(), report), "") << "it gives something at urgency 4";
}

TEST(AZero, OfAPersonalHolderSaysHowToSwitchItOn) {
  Definition trash = definition();
  trash.name = "trash";
  trash.cache_class = CacheClass::personal;
  trash.enabled = false;
  EXPECT_EQ(zeroReason(trash, HolderReport{}), "disabled (personal): kelvanectl caches enable trash");
}

}  // namespace
}  // namespace kelvane::tests
