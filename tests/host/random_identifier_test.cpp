#include "platform/host/random_identifier.h"

#include <gtest/gtest.h>

#include <string>

namespace kelvane::tests {
namespace {

TEST(RandomIdentifier, IsThirtyTwoHexadecimalDigitsAndNeverTheSame) {
  const std::string one = randomIdentifier();
  EXPECT_EQ(one.size(), 32U);
  EXPECT_EQ(one.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_NE(one, randomIdentifier());
}

TEST(RandomIdentifier, EveryDigitTakesEveryValue) {
  // A digit that misses one of its values in so many is a matter of 16 * 32 * (15/16)^2000, less than 10^-53.
  std::string seen[32];
  for (int i = 0; i < 2000; ++i) {
    const std::string one = randomIdentifier();
    ASSERT_EQ(one.size(), 32U);
    for (std::size_t at = 0; at < one.size(); ++at) {
      if (seen[at].find(one[at]) == std::string::npos) seen[at] += one[at];
    }
  }
  for (const std::string& values : seen) EXPECT_EQ(values.size(), 16U);
}

}  // namespace
}  // namespace kelvane::tests
