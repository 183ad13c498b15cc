#include "examples/urgency.h"

#include <gtest/gtest.h>
#include <limits>

namespace kelvane::tests {
namespace {

using examples::givenUpAt;

constexpr examples::Seconds everything = std::numeric_limits<examples::Seconds>::max();

TEST(Urgency, GivesUpYoungerFilesTheHigherItIs) {
  EXPECT_EQ(givenUpAt(1, 1000, 400), 700);
  EXPECT_EQ(givenUpAt(2, 1000, 400), 800);
  EXPECT_EQ(givenUpAt(3, 1000, 400), 900);
  EXPECT_EQ(givenUpAt(4, 1000, 400), everything);
}

TEST(Urgency, BeyondItsBoundsIsTakenAsTheNearest) {
  EXPECT_EQ(givenUpAt(0, 1000, 400), givenUpAt(1, 1000, 400));
  EXPECT_EQ(givenUpAt(-7, 1000, 400), givenUpAt(1, 1000, 400));
  EXPECT_EQ(givenUpAt(5, 1000, 400), everything);
}

}  // namespace
}  // namespace kelvane::tests
