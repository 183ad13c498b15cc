#include "platform/wire/signature.h"

#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace kelvane::wire {
namespace {

std::string repeated(std::string_view text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) all += text;
  return all;
}

TEST(Signature, AnySequenceOfCompleteTypesIsOne) {
  for (const char* text : {"", "y", "ybnqiuxtdsoghv", "as", "aas", "a{sv}", "a{sa{ov}}", "(y)", "((y)(ay))",
                           "vav", "sha{sv}", "a(a{yv}x)"})
    EXPECT_TRUE(isSignature(text)) << text;
}

TEST(Signature, WhatIsIncompleteOrUnknownIsNone) {
  for (const char* text :
       {"a", "(", ")", "()", "(y", "y)", "z", "r", "e", "m", "*", "a(", "a()", "ya", "(a)", "s "})
    EXPECT_FALSE(isSignature(text)) << text;
  EXPECT_FALSE(isSignature(std::string_view("y\0y", 3)));
}

TEST(Signature, ADictionaryEntryStandsInAnArrayWithABasicKeyAndOneValue) {
  for (const char* text :
       {"{sv}", "({sv})", "a{s}", "a{}", "a{vs}", "a{ass}", "a{(s)s}", "a{svs}", "a{sv", "a{s{sv}}"})
    EXPECT_FALSE(isSignature(text)) << text;
  for (const char key : std::string_view("ybnqiuxtdsogh"))
    EXPECT_TRUE(isSignature(std::string("a{") + key + "v}")) << key;
}

TEST(Signature, IsAtMost255BytesLong) {
  EXPECT_TRUE(isSignature(std::string(255, 'y')));
  EXPECT_FALSE(isSignature(std::string(256, 'y')));
  EXPECT_TRUE(isCompleteType("(" + std::string(253, 'y') + ")"));
  EXPECT_FALSE(isCompleteType("(" + std::string(254, 'y') + ")"));
}

TEST(Signature, NestsAtMost32Arrays) {
  EXPECT_TRUE(isSignature(repeated("a", 32) + "y"));
  EXPECT_FALSE(isSignature(repeated("a", 33) + "y"));
  EXPECT_TRUE(isSignature(repeated("a{s", 32) + "y" + repeated("}", 32)));
  EXPECT_FALSE(isSignature(repeated("a{s", 33) + "y" + repeated("}", 33)));
  EXPECT_TRUE(isSignature(repeated(repeated("a", 32) + "y", 3))) << "one after the other";
}

TEST(Signature, NestsAtMost32Structs) {
  EXPECT_TRUE(isSignature(repeated("(", 32) + "y" + repeated(")", 32)));
  EXPECT_FALSE(isSignature(repeated("(", 33) + "y" + repeated(")", 33)));
  EXPECT_TRUE(isSignature(repeated("a(", 32) + "y" + repeated(")", 32)));
  EXPECT_TRUE(isSignature(repeated("(y)", 40))) << "one after the other";
}

TEST(Signature, ACompleteTypeIsExactlyOne) {
  for (const char* text : {"y", "v", "h", "as", "a{sv}", "(ii)", "aa(y)"})
    EXPECT_TRUE(isCompleteType(text)) << text;
  for (const char* text : {"", "yy", "z", "a", "asy", "(y)(y)", "{sv}"})
    EXPECT_FALSE(isCompleteType(text)) << text;
}

TEST(Signature, TheFirstCompleteTypeHasALength) {
  EXPECT_EQ(completeTypeLength("yas"), 1u);
  EXPECT_EQ(completeTypeLength("asy"), 2u);
  EXPECT_EQ(completeTypeLength("a{s(ai)}x"), 8u);
  EXPECT_EQ(completeTypeLength("aa(y(s))v"), 8u);
  EXPECT_EQ(completeTypeLength("(y)(s)"), 3u);
}

TEST(Signature, EachTypeHasItsAlignment) {
  const auto all = [](std::string_view codes, std::size_t alignment) {
    for (const char code : codes) EXPECT_EQ(alignmentOf(code), alignment) << code;
  };
  all("ygv", 1);
  all("nq", 2);
  all("biusoah", 4);
  all("xtd({", 8);
}

TEST(Signature, ContainersAndUnknownCodesAreNotBasic) {
  for (const char code : std::string_view("ybnqiuxtdsogh")) EXPECT_TRUE(isBasicType(code)) << code;
  for (const char code : std::string_view("av({})rez\0", 10)) EXPECT_FALSE(isBasicType(code)) << code;
}

}  // namespace
}  // namespace kelvane::wire
