#include "platform/foundation/archive.h"

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace kelvane {
namespace {

Value unarchived(std::string_view object) {
  Data::Bytes bytes = {'K', 'V', 'A', 1};
  bytes.insert(bytes.end(), object.begin(), object.end());
  return unarchivedValue(bytes);
}

Value nested(std::size_t depth) {
  Value value("innermost");
  for (std::size_t i = 0; i < depth; ++i)
    value = i % 2 == 0 ? Value(Array{value}) : Value(Dictionary{{"k", value}});
  return value;
}

const Value everything(Dictionary{
    {"array", Array{true, false, 0, -1, 1u, "text", Array(), Dictionary()}},
    {"data", Data({0, 255})},
    {"date", Date{-5}},
    {"double", 0.1},
    {"largest", std::numeric_limits<std::uint64_t>::max()},
    {"smallest", std::numeric_limits<std::int64_t>::min()},
    {"", std::string("a\0b\xff", 4)},
});

TEST(Archive, EveryKindOfValueComesBackAsTheSameKind) {
  for (const Value& value : {everything,
                             Value(true),
                             Value(false),
                             Value(0),
                             Value(-1),
                             Value(127),
                             Value(128),
                             Value(std::numeric_limits<std::int64_t>::min()),
                             Value(std::numeric_limits<std::int64_t>::max()),
                             Value(std::numeric_limits<std::uint64_t>::max()),
                             Value(5u),
                             Value(1.0),
                             Value(-0.0),
                             Value(std::numeric_limits<double>::infinity()),
                             Value(""),
                             Value(std::string(1000, 'x')),
                             Value(Data()),
                             Value(Date{std::numeric_limits<std::int64_t>::min()}),
                             Value(Array()),
                             Value(Dictionary())}) {
    const Value back = unarchivedValue(archivedData(value));
    EXPECT_EQ(back, value);
    EXPECT_EQ(back.held().index(), value.held().index()) << value.description();
  }
  EXPECT_TRUE(std::isnan(unarchivedValue(archivedData(std::nan(""))).doubleValue()));
}

TEST(Archive, NothingComesBackAsNothing) {
  EXPECT_FALSE(archivedData(Value()).bytes().empty());
  EXPECT_TRUE(unarchivedValue(archivedData(Value())).isNothing());
}

TEST(Archive, IsCompact) {
  EXPECT_EQ(archivedData(5).bytes(), (Data::Bytes{'K', 'V', 'A', 1, 3, 10}));
  EXPECT_EQ(archivedData(Dictionary{{"a", true}}).bytes(), (Data::Bytes{'K', 'V', 'A', 1, 9, 1, 1, 'a', 2}));
}

TEST(Archive, NestingUpTo64IsArchivedAndBeyondItIsNot) {
  const Data deepest = archivedData(nested(64));
  EXPECT_EQ(unarchivedValue(deepest), nested(64));
  EXPECT_TRUE(archivedData(nested(65)).bytes().empty());
}

TEST(Archive, DeeplyNestedBytesYieldNothing) {
  std::string arrays;
  for (int i = 0; i < 1'000'000; ++i) arrays += "\x08\x01";
  EXPECT_TRUE(unarchived(arrays + "\x02").isNothing());
  EXPECT_FALSE(unarchived(arrays.substr(0, 128) + "\x02").isNothing());
  EXPECT_TRUE(unarchived(arrays.substr(0, 130) + "\x02").isNothing());
}

TEST(Archive, BytesThatAreNoArchiveYieldNothing) {
  EXPECT_TRUE(unarchivedValue(Data()).isNothing());
  EXPECT_TRUE(unarchivedValue(Data({'K', 'V', 'A', 1})).isNothing());
  EXPECT_TRUE(unarchivedValue(Data({'K', 'V', 'A', 2, 2})).isNothing());
  EXPECT_TRUE(unarchivedValue(Data({'x', 'V', 'A', 1, 2})).isNothing());
  EXPECT_EQ(unarchivedValue(Data({'K', 'V', 'A', 1, 2})), Value(true));
}

TEST(Archive, ACountThatTheBytesLeftCannotHoldYieldsNothing) {
  for (const char* tag : {"\x05", "\x06", "\x08", "\x09"}) {
    EXPECT_TRUE(unarchived(std::string(tag) + "\xff\xff\xff\xff\xff\xff\xff\xff\x7f").isNothing());
    EXPECT_TRUE(unarchived(std::string(tag) + "\x05\x02").isNothing());
  }
}

TEST(Archive, WhatFollowsTheRootYieldsNothing) { EXPECT_TRUE(unarchived("\x02\x02").isNothing()); }

TEST(Archive, NothingInsideACollectionYieldsNothing) {
  EXPECT_TRUE(unarchived(std::string("\x08\x01\x00", 3)).isNothing());
  EXPECT_TRUE(unarchived(std::string("\x09\x01\x01k\x00", 5)).isNothing());
}

TEST(Archive, KeysThatDoNotAscendYieldNothing) {
  EXPECT_FALSE(unarchived("\x09\x02\x01\x61\x02\x01\x62\x02").isNothing());
  EXPECT_TRUE(unarchived("\x09\x02\x01\x62\x02\x01\x61\x02").isNothing());
  EXPECT_TRUE(unarchived("\x09\x02\x01\x61\x02\x01\x61\x02").isNothing());
}

TEST(Archive, ANumberOfTooManyBitsOrBytesYieldsNothing) {
  EXPECT_EQ(unarchived("\x04\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01"), Value(~std::uint64_t{0}));
  EXPECT_TRUE(unarchived("\x04\xff\xff\xff\xff\xff\xff\xff\xff\xff\x02").isNothing());
  EXPECT_TRUE(unarchived("\x04\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01").isNothing());
  EXPECT_TRUE(unarchived(std::string("\x04\x81\x00", 3)).isNothing());
}

TEST(Archive, ATruncatedArchiveYieldsNothingAtEveryLength) {
  const Data::Bytes whole = archivedData(everything).bytes();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_TRUE(unarchivedValue(std::span(whole).first(length)).isNothing()) << length;
  }
}

TEST(Archive, DamagedBytesYieldNothingOrAValueThatArchivesToThoseBytes) {
  const Data::Bytes whole = archivedData(everything).bytes();
  std::minstd_rand random(1);
  std::size_t refused = 0;
  for (int turn = 0; turn < 50'000; ++turn) {
    Data::Bytes damaged = whole;
    for (auto left = 1 + random() % 3; left > 0; --left) {
      damaged[random() % damaged.size()] = static_cast<std::uint8_t>(random());
    }
    const Value value = unarchivedValue(damaged);
    if (value.isNothing()) {
      ++refused;
    } else {
      EXPECT_EQ(archivedData(value).bytes(), damaged);
    }
  }
  EXPECT_GT(refused, 0u);
  EXPECT_LT(refused, 50'000u);
}

}  // namespace
}  // namespace kelvane
