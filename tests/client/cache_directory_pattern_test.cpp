// Patterns for paths within a cache directory.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <chrono>

#include "client/cache_pattern.h"
#include "tests/client/cache_tree.h"

namespace kelvane::tests {
namespace {

using client::CachePatterns;
using testing::ElementsAre;

bool matches(const std::string& pattern, const std::string& path) {
  EXPECT_EQ(CachePatterns::problemIn(pattern), "") << pattern;
  const CachePatterns patterns({pattern});
  CachePatterns::State state = 0;
  patterns.begin(&state);
  std::size_t at = 0;
  for (std::size_t slash = 0; (slash = path.find('/', at)) != std::string::npos; at = slash + 1) {
    CachePatterns::State next = 0;
    patterns.enter(&state, path.substr(at, slash - at).c_str(), &next);
    state = next;
  }
  return patterns.match(&state, path.substr(at).c_str());
}

TEST(APattern, MatchesWithinAName) {
  EXPECT_TRUE(matches("*.deb", "a.deb"));
  EXPECT_TRUE(matches("*.deb", ".deb"));
  EXPECT_FALSE(matches("*.deb", "sub/a.deb"));
  EXPECT_FALSE(matches("*.deb", "a.debian"));
  EXPECT_TRUE(matches("a?c", "abc"));
  EXPECT_FALSE(matches("a?c", "ac"));
  EXPECT_TRUE(matches("*a*b*", "xxaxxbxx"));
  EXPECT_TRUE(matches("*", ".hidden"));
  EXPECT_TRUE(matches("a\\*b", "a*b"));
  EXPECT_FALSE(matches("a\\*b", "axb"));
  EXPECT_TRUE(matches("\xff?", "\xff\xfe"));
}

TEST(APattern, MatchesOneByteOfASet) {
  EXPECT_TRUE(matches("[0-9a-f][0-9a-f]", "a7"));
  EXPECT_FALSE(matches("[0-9a-f]", "g"));
  EXPECT_TRUE(matches("[!0-9]", "g"));
  EXPECT_TRUE(matches("[^0-9]", "g"));
  EXPECT_FALSE(matches("[!0-9]", "7"));
  EXPECT_TRUE(matches("[]]", "]"));
  EXPECT_TRUE(matches("[a-]", "-"));
  EXPECT_TRUE(matches("[[:digit:]x]", "5"));
  EXPECT_FALSE(matches("[[:digit:]x]", "y"));
  EXPECT_TRUE(matches("[\\]]", "]"));
}

TEST(APattern, MatchesAnyNumberOfNamesWithTwoStars) {
  EXPECT_TRUE(matches("content-v2/**", "content-v2/sha512/00/ff"));
  EXPECT_FALSE(matches("content-v2/**", "index-v5/00"));
  EXPECT_TRUE(matches("**/a", "a"));
  EXPECT_TRUE(matches("**/a", "x/y/a"));
  EXPECT_FALSE(matches("**/a", "x/a/y"));
  EXPECT_TRUE(matches("a/**/b", "a/b"));
  EXPECT_TRUE(matches("a/**/b", "a/x/b/y/b"));
  EXPECT_TRUE(matches("**", "a/b/c"));
  EXPECT_TRUE(matches("**/*@*", "github.com/x/y@v1"));
}

TEST(APattern, OfManyStarsTakesNoLongerThanItsLengthDemands) {
  std::string pattern = "**";
  for (int part = 0; part < 30; ++part) pattern += "/a*a*a*a*a*b/**";
  std::string path;
  for (int name = 0; name < 500; ++name) path += std::string(200, 'a') + "/";
  const auto began = std::chrono::steady_clock::now();
  EXPECT_FALSE(matches(pattern, path + "c"));
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(5));
}

TEST(APattern, ThatIsMalformedIsRefusedWithAReason) {
  for (const char* pattern : {"", "/a", "a/", "a//b", ".", "../a", "a/./b", "a**", "**a/b", "[", "a[b", "[]",
                              "[!]", "[[:nonsense:]]", "[[.a.]]", "a\\"}) {
    EXPECT_NE(CachePatterns::problemIn(pattern), "") << pattern;
  }
  EXPECT_NE(CachePatterns::problemIn(std::string("a\0b", 3)), "");
  EXPECT_NE(CachePatterns::problemIn(std::string(5000, 'a')), "");
  std::string deep = "a";
  for (int part = 0; part < 63; ++part) deep += "/a";
  EXPECT_NE(CachePatterns::problemIn(deep), "");
}

TEST(ACacheWithPatterns, GivesUpWhatIsIncludedAndNotExcluded) {
  const CacheTree cache;
  for (const char* name : {"a.deb", "b.deb", "lock", "partial/c.deb", "partial/d", "other/e.deb"})
    cache.add(name);
  auto rules = rulesOfDays({-1, -1, -1, 0});
  rules.include = {"*.deb", "partial/**"};
  rules.exclude = {"b.*"};
  EXPECT_THAT(cache.list(rules), ElementsAre("a.deb", "partial/c.deb", "partial/d"));
  EXPECT_EQ(stays(cache.survey(rules), client::CacheStay::excluded).items, 3U)
      << "b.deb, lock and the directory that nothing includes";
  rules.exclude = {"partial"};
  EXPECT_THAT(cache.list(rules), ElementsAre("a.deb", "b.deb"));
  EXPECT_EQ(cache.purge(rules).files, 2U);
  EXPECT_EQ(cache.files().size(), 4U);
}

}  // namespace
}  // namespace kelvane::tests
