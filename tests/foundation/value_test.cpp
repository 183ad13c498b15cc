#include "kelvane/value.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace kelvane {
namespace {

constexpr std::uint64_t largest_unsigned = std::numeric_limits<std::uint64_t>::max();
constexpr std::int64_t largest_signed = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t smallest_signed = std::numeric_limits<std::int64_t>::min();

TEST(Value, MinusOneAsUnsignedIsTheLargestUnsigned) {
  EXPECT_EQ(Value(-1).unsignedLongLongValue(), largest_unsigned);
  EXPECT_EQ(Value(-1.0).unsignedLongLongValue(), largest_unsigned);
  EXPECT_EQ(Value(-1).longLongValue(), -1);
}

TEST(Value, AFractionIsCutOff) {
  EXPECT_EQ(Value(1.9).unsignedLongLongValue(), 1u);
  EXPECT_EQ(Value(1.9).longLongValue(), 1);
  EXPECT_EQ(Value(1.9).intValue(), 1);
  EXPECT_EQ(Value(-1.9).longLongValue(), -1);
  EXPECT_EQ(Value(-0.9).unsignedLongLongValue(), 0u);
}

TEST(Value, TrueIsTheNumberOne) {
  EXPECT_TRUE(Value(true).isNumber());
  EXPECT_TRUE(Value(true).isBoolean());
  EXPECT_EQ(Value(true).unsignedLongLongValue(), 1u);
  EXPECT_EQ(Value(true).intValue(), 1);
  EXPECT_EQ(Value(true).doubleValue(), 1.0);
  EXPECT_EQ(Value(false).unsignedLongLongValue(), 0u);
}

TEST(Value, TheLargestUnsignedKeepsItsBits) {
  const Value largest(largest_unsigned);
  EXPECT_EQ(largest.unsignedLongLongValue(), largest_unsigned);
  EXPECT_EQ(largest.longLongValue(), -1);
  EXPECT_EQ(largest.intValue(), -1);
  EXPECT_EQ(largest.doubleValue(), 18446744073709551616.0);
  EXPECT_TRUE(largest.boolValue());
}

TEST(Value, NotANumberConvertsToZero) {
  const Value not_a_number(std::nan(""));
  EXPECT_EQ(not_a_number.unsignedLongLongValue(), 0u);
  EXPECT_EQ(not_a_number.longLongValue(), 0);
  EXPECT_EQ(not_a_number.intValue(), 0);
  EXPECT_TRUE(std::isnan(not_a_number.doubleValue()));
}

TEST(Value, ADoubleThatDoesNotFitBecomesTheNearestThatDoes) {
  EXPECT_EQ(Value(1e300).unsignedLongLongValue(), largest_unsigned);
  EXPECT_EQ(Value(1e300).longLongValue(), largest_signed);
  EXPECT_EQ(Value(-1e300).longLongValue(), smallest_signed);
  EXPECT_EQ(Value(18446744073709551616.0).unsignedLongLongValue(), largest_unsigned);
  EXPECT_EQ(Value(9223372036854775808.0).longLongValue(), largest_signed);
  EXPECT_EQ(Value(1e10).intValue(), std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(Value(-1e10).intValue(), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(Value(std::numeric_limits<double>::infinity()).unsignedLongLongValue(), largest_unsigned);
}

TEST(Value, AnIntegerThatDoesNotFitKeepsItsLowBits) {
  EXPECT_EQ(Value(std::int64_t{0x1'0000'0005}).intValue(), 5);
  EXPECT_EQ(Value(largest_signed).intValue(), -1);
}

TEST(Value, WhatIsNoNumberConvertsToZero) {
  for (const Value& value : {Value(), Value("17"), Value(Data({1})), Value(Date{5}), Value(Array{1}),
                             Value(Dictionary{{"a", 1}})}) {
    EXPECT_FALSE(value.isNumber()) << value.description();
    EXPECT_FALSE(value.boolValue()) << value.description();
    EXPECT_EQ(value.intValue(), 0) << value.description();
    EXPECT_EQ(value.longLongValue(), 0) << value.description();
    EXPECT_EQ(value.unsignedLongLongValue(), 0u) << value.description();
    EXPECT_EQ(value.doubleValue(), 0.0) << value.description();
  }
}

TEST(Value, AHalfIsTrue) {
  EXPECT_TRUE(Value(0.5).boolValue());
  EXPECT_FALSE(Value(-0.0).boolValue());
}

TEST(Value, NumbersOfDifferentKindsAreEqualWhenTheyStandForTheSameNumber) {
  EXPECT_EQ(Value(true), Value(1));
  EXPECT_EQ(Value(1), Value(1u));
  EXPECT_EQ(Value(1u), Value(1.0));
  EXPECT_EQ(Value(-3), Value(-3.0));
  EXPECT_EQ(Value(false), Value(0.0));
  EXPECT_NE(Value(1), Value(1.5));
  EXPECT_NE(Value(true), Value(2));
  EXPECT_NE(Value(0), Value());
}

TEST(Value, MinusOneDoesNotEqualTheLargestUnsigned) {
  EXPECT_NE(Value(-1), Value(largest_unsigned));
  EXPECT_NE(Value(largest_unsigned), Value(-1.0));
}

TEST(Value, AnIntegerThatADoubleCannotHoldEqualsNoDouble) {
  const std::int64_t odd = (std::int64_t{1} << 53) + 1;
  EXPECT_EQ(Value(odd - 1), Value(9007199254740992.0));
  EXPECT_NE(Value(odd), Value(9007199254740992.0));
  EXPECT_NE(Value(largest_unsigned), Value(18446744073709551616.0));
  EXPECT_EQ(Value(smallest_signed), Value(-9223372036854775808.0));
  EXPECT_NE(Value(0), Value(std::nan("")));
  EXPECT_NE(Value(largest_signed), Value(std::numeric_limits<double>::infinity()));
}

TEST(Value, ThingsOfDifferentKindsAreNotEqual) {
  EXPECT_NE(Value("1"), Value(1));
  EXPECT_NE(Value(Date{1}), Value(1));
  EXPECT_NE(Value(Data({'a'})), Value("a"));
  EXPECT_NE(Value(Array()), Value(Dictionary()));
  EXPECT_EQ(Value(), Value(nullptr));
}

TEST(Value, CollectionsAreComparedByWhatTheyHold) {
  EXPECT_EQ(Value(Array{1, "b"}), Value(Array{1.0, "b"}));
  EXPECT_NE(Value(Array{1, 2}), Value(Array{2, 1}));
  EXPECT_EQ(Value(Dictionary{{"b", 2}, {"a", true}}), Value(Dictionary{{"a", 1}, {"b", 2}}));
  EXPECT_EQ(Value(Data({1, 2})), Value(Data({1, 2})));
}

TEST(Value, AChangedCopyLeavesTheOriginalAlone) {
  const Dictionary original{{"a", 1}, {"inner", Dictionary{{"x", "y"}}}};
  Dictionary copy = original;
  copy.set("a", 2);
  copy.remove("inner");
  EXPECT_EQ(original, (Dictionary{{"a", 1}, {"inner", Dictionary{{"x", "y"}}}}));
  EXPECT_EQ(copy, (Dictionary{{"a", 2}}));

  const Array first{1, 2};
  Array second = first;
  second.append(3);
  EXPECT_EQ(first.size(), 2u);
  EXPECT_EQ(second.size(), 3u);
}

TEST(Value, AnInnerDictionaryTakenOutAndChangedLeavesItsHolderAlone) {
  const Value holder(Dictionary{{"inner", Dictionary{{"x", 1}}}});
  Dictionary inner = *(*holder.dictionary())["inner"].dictionary();
  inner.clear();
  EXPECT_TRUE(inner.empty());
  EXPECT_EQ((*(*holder.dictionary())["inner"].dictionary())["x"], Value(1));
}

TEST(Value, CopiesMadeByManyThreadsStayApart) {
  const Dictionary shared{{"who", "nobody"}};
  std::vector<Dictionary> copies(4);
  std::vector<std::thread> threads;
  threads.reserve(copies.size());
  for (std::size_t i = 0; i < copies.size(); ++i) {
    threads.emplace_back([&shared, &copies, i] {
      for (std::size_t turn = 0; turn < 1000; ++turn) {
        copies[i] = shared;
        copies[i].set("who", i);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(shared["who"], Value("nobody"));
  for (std::size_t i = 0; i < copies.size(); ++i) EXPECT_EQ(copies[i]["who"], Value(i));
}

TEST(Dictionary, IteratesInTheOrderOfTheKeysBytes) {
  Dictionary dictionary;
  for (const char* key : {"b", "\xc3\xa9", "a", "B", "", "aa"}) dictionary.set(key, true);
  std::vector<std::string> order;
  for (const auto& entry : dictionary) order.push_back(entry.first);
  EXPECT_EQ(order, (std::vector<std::string>{"", "B", "a", "aa", "b", "\xc3\xa9"}));
  EXPECT_EQ(dictionary.keys(), (Array{"", "B", "a", "aa", "b", "\xc3\xa9"}));
}

TEST(Dictionary, SettingNothingRemovesTheKey) {
  Dictionary dictionary{{"a", 1}, {"b", nullptr}};
  EXPECT_FALSE(dictionary.contains("b"));
  dictionary.set("a", nullptr);
  EXPECT_TRUE(dictionary.empty());
  dictionary.remove("a");
  EXPECT_TRUE(dictionary.empty());
}

TEST(Dictionary, AnAbsentKeyReadsAsNothing) {
  const Dictionary dictionary{{"a", 1}};
  EXPECT_TRUE(dictionary["b"].isNothing());
  EXPECT_FALSE(dictionary.contains("b"));
}

TEST(Array, HoldsNoNothing) {
  Array array{1, nullptr, 2};
  array.append(Value());
  EXPECT_EQ(array, (Array{1, 2}));
  EXPECT_EQ(Array(Array::Elements{Value(), Value(1)}), Array{1});
}

TEST(Array, ReadingPastTheEndGivesNothing) {
  EXPECT_TRUE((Array{1}[1].isNothing()));
  EXPECT_TRUE(Array()[0].isNothing());
}

TEST(Array, ContainsComparesNumbersByValue) {
  const Array array{"PURGE", 1};
  EXPECT_TRUE(array.contains("PURGE"));
  EXPECT_TRUE(array.contains(true));
  EXPECT_FALSE(array.contains("PERIODIC"));
}

TEST(Value, IsDescribedAsLogLinesPrintIt) {
  EXPECT_EQ(Value(Dictionary{{"KELVANE_AMOUNT", 5}, {"KELVANE_VOLUME", "/"}}).description(),
            "{KELVANE_AMOUNT = 5; KELVANE_VOLUME = \"/\";}");
  EXPECT_EQ(Value(Array{1, 2}).description(), "(1, 2)");
  EXPECT_EQ(Value(Data({10, 11})).description(), "<0a0b>");
  EXPECT_EQ(Value().description(), "(null)");
  EXPECT_EQ(Value(true).description(), "1");
  EXPECT_EQ(Value(largest_unsigned).description(), "18446744073709551615");
  EXPECT_EQ(Value(-7).description(), "-7");
}

TEST(Value, EmptyCollectionsAndNestedOnesAreDescribed) {
  EXPECT_EQ(Value(Dictionary()).description(), "{}");
  EXPECT_EQ(Value(Array()).description(), "()");
  EXPECT_EQ(Value(Dictionary{{"a", Array{Dictionary{{"b", true}}}}, {"c d", 1}}).description(),
            "{a = ({b = 1;}); \"c d\" = 1;}");
}

TEST(Value, ADoubleIsDescribedByItsShortestText) {
  EXPECT_EQ(Value(1.5).description(), "1.5");
  EXPECT_EQ(Value(3.0).description(), "3");
  EXPECT_EQ(Value(1e-9).description(), "1e-09");
  EXPECT_EQ(Value(0.1).description(), "0.1");
}

TEST(Value, TextIsDescribedOnOneLineWithQuotesEscaped) {
  EXPECT_EQ(Value("say \"hi\"\n\\").description(), "\"say \\\"hi\\\"\\n\\\\\"");
}

TEST(Value, LongDataIsDescribedInPartAndSaysSo) {
  const std::string text = Value(Data(Data::Bytes(100, 0xff))).description();
  EXPECT_EQ(text, "<" + std::string(128, 'f') + "... 100 bytes>");
}

TEST(Date, SecondsBetweenTheFurthestDatesDoNotOverflow) {
  const Date first{smallest_signed};
  const Date last{largest_signed};
  EXPECT_DOUBLE_EQ(last.secondsSince(first), 18446744073709.551616);
  EXPECT_DOUBLE_EQ((Date{2'500'000}).secondsSince(Date{1'000'000}), 1.5);
  EXPECT_DOUBLE_EQ((Date{0}).secondsSince(Date{1'000'000}), -1.0);
}

}  // namespace
}  // namespace kelvane
