#include "examples/urgency.h"

#include <gtest/gtest.h>

namespace kelvane::tests {
namespace {

using examples::rulesFor;
using std::chrono::seconds;

TEST(UrgencyOfACache, GivesUpYoungerFilesTheMoreUrgentItIs) {
  const client::CacheRules rules = rulesFor(seconds(400), seconds(5));
  EXPECT_EQ(rules.ages[0], seconds(300));
  EXPECT_EQ(rules.ages[1], seconds(200));
  EXPECT_EQ(rules.ages[2], seconds(100));
  EXPECT_EQ(rules.ages[3], seconds(0));
  EXPECT_EQ(rules.youngest, seconds(5));
}

TEST(UrgencyOfACache, GivesUpEverythingAtAnyUrgencyWithoutALifetime) {
  for (const auto& age : rulesFor(seconds(0), seconds(0)).ages) EXPECT_EQ(age, seconds(0));
}

}  // namespace
}  // namespace kelvane::tests
