#include "caches/quantities.h"

#include <gtest/gtest.h>

namespace kelvane::caches {
namespace {

using namespace std::chrono_literals;

TEST(Age, IsANumberAndAUnit) {
  EXPECT_EQ(parseAge("90s"), 90s);
  EXPECT_EQ(parseAge("90m"), 90min);
  EXPECT_EQ(parseAge("36h"), 36h);
  EXPECT_EQ(parseAge("30d"), 720h);
  EXPECT_EQ(parseAge("2w"), 336h);
  EXPECT_EQ(parseAge("3660d"), greatest_age);
  for (const char* text : {"", "d", "30", "30D", "30dd", " 30d", "30 d", "-1d", "+1d", "1.5d", "3661d"}) {
    EXPECT_EQ(parseAge(text), std::nullopt) << text;
  }
}

TEST(Age, IsWrittenInTheLargestUnitThatDividesIt) {
  EXPECT_EQ(ageText(720h), "30d");
  EXPECT_EQ(ageText(1h), "1h");
  EXPECT_EQ(ageText(90min), "90m");
  EXPECT_EQ(ageText(3601s), "3601s");
}

TEST(Size, IsANumberAndPerhapsAUnit) {
  EXPECT_EQ(parseSize("0"), 0U);
  EXPECT_EQ(parseSize("4096"), 4096U);
  EXPECT_EQ(parseSize("64M"), 64U << 20);
  EXPECT_EQ(parseSize("64MiB"), 64U << 20);
  EXPECT_EQ(parseSize("1T"), std::uint64_t{1} << 40);
  for (const char* text :
       {"", "M", "64MB", "64m", "-1", "1.5G", "64 M", "18446744073709551616", "9999999999T"}) {
    EXPECT_EQ(parseSize(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace kelvane::caches
