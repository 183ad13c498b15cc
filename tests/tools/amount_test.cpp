#include "tools/amount.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace kelvane::tests {
namespace {

using tools::NoAmount;
using tools::parseAmount;

TEST(Amount, IsReadAsPeopleWriteIt) {
  const std::vector<std::pair<const char*, std::uint64_t>> table = {
      {"1", 1},
      {"4096", 4096},
      {"4096B", 4096},
      {"500M", 500ULL << 20},
      {"500m", 500ULL << 20},
      {"500 MiB", 500ULL << 20},
      {"500MB", 500'000'000},
      {"500kb", 500'000},
      {"2G", 2ULL << 30},
      {"1.5GiB", 3ULL << 29},
      {"1.5 gib", 3ULL << 29},
      {".5K", 512},
      {"1.K", 1024},
      {"0.3K", 307},
      {"1T", 1ULL << 40},
      {"3P", 3ULL << 50},
      {"007K", 7168},
      {"9007199254740993", 9007199254740993},  // no double holds it
      {"18446744073709551615", ~0ULL},
      {"16383P", 16383ULL << 50},
  };
  for (const auto& [text, bytes] : table) {
    const auto read = parseAmount(text);
    ASSERT_TRUE(std::holds_alternative<std::uint64_t>(read)) << std::get<NoAmount>(read).reason;
    EXPECT_EQ(std::get<std::uint64_t>(read), bytes) << text;
  }
}

TEST(Amount, SaysWhatIsWrongWithWhatIsNone) {
  const std::vector<std::pair<const char*, const char*>> table = {
      {"", "does not begin with a number"},
      {"-1", "does not begin with a number"},
      {"+1", "does not begin with a number"},
      {"M", "does not begin with a number"},
      {".", "does not begin with a number"},
      {".M", "does not begin with a number"},
      {"1.2.3", "does not begin with a number"},
      {" 5M", "does not begin with a number"},
      {"nan", "does not begin with a number"},
      {"inf", "does not begin with a number"},
      {"5X", "\"X\" is no unit"},
      {"5Mi", "\"Mi\" is no unit"},
      {"5 ", "\" \" is no unit"},
      {"5  M", "\" M\" is no unit"},
      {"1e999", "\"e999\" is no unit"},
      {"0x10", "\"x10\" is no unit"},
      {"5MiBs", "\"MiBs\" is no unit"},
      {"5,5M", "\",5M\" is no unit"},
      {"18446744073709551616", "more than any volume holds"},
      {"16384P", "more than any volume holds"},
      {"16384.5P", "more than any volume holds"},
      {"99999999999999999999999999999.5", "more than any volume holds"},
      {"0", "less than one byte"},
      {"0.0001K", "less than one byte"},
      {"0G", "less than one byte"},
  };
  for (const auto& [text, reason] : table) {
    const auto read = parseAmount(text);
    ASSERT_TRUE(std::holds_alternative<NoAmount>(read)) << text;
    EXPECT_THAT(std::get<NoAmount>(read).reason, testing::HasSubstr(reason)) << text;
    EXPECT_THAT(std::get<NoAmount>(read).reason, testing::HasSubstr("500M")) << "says what to do";
  }
}

TEST(Amount, IsWrittenWithFourDigitsAtMost) {
  EXPECT_EQ(tools::inUnits(0), "0 B");
  EXPECT_EQ(tools::inUnits(1023), "1023 B");
  EXPECT_EQ(tools::inUnits(1024), "1.0 KiB");
  EXPECT_EQ(tools::inUnits((1 << 20) - 1), "1.0 MiB");
  EXPECT_EQ(tools::inUnits(3ULL << 29), "1.5 GiB");
  EXPECT_EQ(tools::inUnits(~0ULL), "16.0 EiB");
  EXPECT_EQ(tools::inUnitsSigned(-1536), "-1.5 KiB");
  EXPECT_EQ(tools::inUnitsSigned(INT64_MIN), "-8.0 EiB");
}

TEST(Amount, ReadsWhatItWrites) {
  for (const std::uint64_t bytes : {1ULL, 1536ULL, 5ULL << 20, 3ULL << 29, 7ULL << 40})
    EXPECT_EQ(std::get<std::uint64_t>(parseAmount(tools::inUnits(bytes))), bytes);
}

TEST(Time, IsWrittenInTheUnitThatSuits) {
  EXPECT_EQ(tools::inTime(0), "0 ms");
  EXPECT_EQ(tools::inTime(-3), "0 ms");
  EXPECT_EQ(tools::inTime(0.0124), "12 ms");
  EXPECT_EQ(tools::inTime(0.9999), "1.0 s");
  EXPECT_EQ(tools::inTime(59.94), "59.9 s");
  EXPECT_EQ(tools::inTime(59.96), "1 min 0 s");
  EXPECT_EQ(tools::inTime(320), "5 min 20 s");
  EXPECT_EQ(tools::inTime(7500), "2 h 5 min");
}

TEST(Seconds, AreReadWithinTheirBounds) {
  EXPECT_EQ(std::get<double>(tools::parseSeconds("2")), 2);
  EXPECT_EQ(std::get<double>(tools::parseSeconds("0.5")), 0.5);
  EXPECT_EQ(std::get<double>(tools::parseSeconds("3600")), 3600);
  for (const char* text : {"", "0", "0.09", "3601", "-1", "x", "1x", " 1", "1e999", "1e1", "nan", "inf"})
    EXPECT_TRUE(std::holds_alternative<tools::NoAmount>(tools::parseSeconds(text))) << text;
}

}  // namespace
}  // namespace kelvane::tests
