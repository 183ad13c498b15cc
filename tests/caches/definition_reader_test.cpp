#include "caches/definition_reader.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/caches/definition_text.h"
#include "tests/foundation/temporary_directory.h"

namespace kelvane::caches {
namespace {

using test::DefinitionText;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using namespace std::chrono_literals;

std::vector<std::string> problemsOf(const std::string& text) {
  std::vector<std::string> texts;
  for (const Problem& problem : parseDefinition(text, "npm.toml").problems) texts.push_back(problem.text());
  return texts;
}
std::vector<std::string> problemsOf(const DefinitionText& text) { return problemsOf(text.text()); }

std::string listOf(std::size_t count, const std::string& entry) {
  std::string list = "[";
  for (std::size_t i = 0; i < count; ++i) list += entry + ", ";
  return list + "]";
}

TEST(DefinitionReader, ReadsEveryKeyOfADefinition) {
  const DefinitionResult result = parseDefinition(R"([holder]
name = "go-modules"
kind = "units"
for = "user"
class = "personal"
needs = "network"
summary = "unpacked Go modules"
roots = ["~/go/pkg/mod"]
include = ["*@*", "*/*@*"]
exclude = ["cache"]
markers = [".ok"]
in_use = [{ record = "lock" }, { process = "go" }, { pid_link = "~/.x/{1}/Lock" }, { flock = "/a" }, { exists = "b" }]
unit_locks = [{ flock = "cache/{stem}/{version}.lock" }]
open_files_stay = true
tagged_only = true
keep_newest = 3
keep_bytes = "64M"
[urgency]
2 = "30d"
4 = "1h"
)",
                                                  "go-modules.toml");
  ASSERT_THAT(result.problems, IsEmpty());
  const Definition& definition = *result.definition;
  EXPECT_EQ(definition.name, "go-modules");
  EXPECT_EQ(definition.kind, Kind::units);
  EXPECT_EQ(definition.owner, Owner::user);
  EXPECT_EQ(definition.cache_class, CacheClass::personal);
  EXPECT_TRUE(definition.needs_network);
  EXPECT_FALSE(definition.enabled);
  EXPECT_EQ(definition.file, "go-modules.toml");
  EXPECT_THAT(definition.roots, ElementsAre("~/go/pkg/mod"));
  ASSERT_THAT(definition.in_use, SizeIs(5));
  EXPECT_EQ(definition.in_use[0].kind, InUse::Kind::record);
  EXPECT_EQ(definition.in_use[1].kind, InUse::Kind::process);
  EXPECT_EQ(definition.in_use[2].kind, InUse::Kind::pid_link);
  EXPECT_EQ(definition.in_use[2].what, "~/.x/{1}/Lock");
  EXPECT_EQ(definition.in_use[4].kind, InUse::Kind::exists);
  const client::CacheRules& rules = definition.rules;
  EXPECT_EQ(rules.unit, client::CacheUnit::directory);
  EXPECT_THAT(rules.include, ElementsAre("*@*", "*/*@*"));
  EXPECT_THAT(rules.exclude, ElementsAre("cache"));
  EXPECT_THAT(rules.markers, ElementsAre(".ok"));
  ASSERT_THAT(rules.unit_locks, SizeIs(1));
  EXPECT_EQ(rules.unit_locks[0].path, "cache/{stem}/{version}.lock");
  EXPECT_TRUE(rules.open_files_stay);
  EXPECT_TRUE(rules.tagged_only);
  EXPECT_EQ(rules.keep_newest, 3U);
  EXPECT_EQ(rules.keep_bytes, 64U << 20);
}

TEST(DefinitionReader, AnUrgencyWithoutAnAgeAllowsWhatTheOneBelowItDoes) {
  const DefinitionResult result =
      parseDefinition(DefinitionText().urgency({{"2", "\"30d\""}}).text(), "npm.toml");
  ASSERT_TRUE(result.definition);
  const auto& ages = result.definition->rules.ages;
  EXPECT_EQ(ages[0], std::nullopt);
  EXPECT_EQ(ages[1], 30 * 24h);
  EXPECT_EQ(ages[2], 30 * 24h);
  EXPECT_EQ(ages[3], 30 * 24h);
}

TEST(DefinitionReader, OnlyPersonalHoldersBeginDisabled) {
  for (const auto& [cache_class, enabled] : {std::pair("\"regenerable\"", true), {"\"personal\"", false}}) {
    const auto result = parseDefinition(DefinitionText().holder("class", cache_class).text(), "npm.toml");
    ASSERT_TRUE(result.definition);
    EXPECT_EQ(result.definition->enabled, enabled);
  }
}

struct Wrong {
  const char* key;
  std::string value;
  const char* reason;
};
void PrintTo(const Wrong& wrong, std::ostream* out) {
  *out << wrong.key << " = " << wrong.value.substr(0, 60);
}

class WrongValue : public testing::TestWithParam<Wrong> {};

TEST_P(WrongValue, IsRefusedWithItsLineTheValueAndWhatWouldBeRight) {
  const auto result =
      parseDefinition(DefinitionText().holder(GetParam().key, GetParam().value).text(), "npm.toml");
  EXPECT_FALSE(result.definition);
  ASSERT_THAT(result.problems, SizeIs(1));
  EXPECT_THAT(result.problems.front().reason, HasSubstr(GetParam().reason));
  EXPECT_GE(result.problems.front().line, 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Holder, WrongValue,
    testing::Values(
        Wrong{"name", "\"Npm\"", "invalid name \"Npm\": expected 1 to 64 of a-z, 0-9"},
        Wrong{"name", "\"\"", "invalid name \"\": expected"},
        Wrong{"name", "\"a/b\"", "invalid name \"a/b\""}, Wrong{"name", "\"-a\"", "not beginning with"},
        Wrong{"name", "\"local\"", "expected another"},
        Wrong{"name", "\"" + std::string(65, 'a') + "\"", "expected 1 to 64"},
        Wrong{"name", "7", "name is an integer: expected a string"},
        Wrong{"kind", "\"adapter\"", "invalid kind \"adapter\": expected files or units"},
        Wrong{"for", "\"root\"", "invalid for \"root\": expected system or user"},
        Wrong{"class", "\"x\"", "invalid class \"x\": expected regenerable, expirable or personal"},
        Wrong{"needs", "\"power\"", "invalid needs \"power\": expected network"},
        Wrong{"summary", "\"\"", "invalid summary \"\": is empty"},
        Wrong{"summary", "\"a\\nb\"", "control character"},
        Wrong{"summary", "\"" + std::string(121, 'x') + "\"", "longer than 120"},
        Wrong{"colour", "\"red\"", "unknown key \"colour\" in [holder]: expected one of name, kind"},
        Wrong{"open_files_stay", "\"yes\"", "open_files_stay is a string: expected true or false"},
        Wrong{"tagged_only", "1", "tagged_only is an integer: expected true or false"},
        Wrong{"keep_newest", "-1", "invalid keep_newest: expected an integer from 0 to 4096"},
        Wrong{"keep_newest", "4097", "expected an integer from 0 to 4096"},
        Wrong{"keep_newest", "1.5", "invalid keep_newest"},
        Wrong{"keep_bytes", "\"64X\"", "invalid keep_bytes \"64X\": expected a size such as 64M"},
        Wrong{"keep_bytes", "64", "keep_bytes is an integer: expected a string"},
        Wrong{"summary", "1979-05-27", "summary is a date or time: expected a string"}));

INSTANTIATE_TEST_SUITE_P(
    Roots, WrongValue,
    testing::Values(
        Wrong{"roots", "\"~/.npm\"", "roots is a string: expected an array"},
        Wrong{"roots", "[]", "roots is empty: expected at least one"}, Wrong{"roots", "[\"\"]", "is empty"},
        Wrong{"roots", "[7]", "an entry of roots is an integer: expected a string"},
        Wrong{"roots", "[\".npm/_cacache\"]", "invalid root \".npm/_cacache\": is relative: expected"},
        Wrong{"roots", "[\"~\"]", "is relative"}, Wrong{"roots", "[\"~/\"]", "empty name"},
        Wrong{"roots", "[\"~/.cache/../Documents\"]", "holds \"..\""},
        Wrong{"roots", "[\"~/.cache/./x\"]", "holds \".\""},
        Wrong{"roots", "[\"~/.cache//x\"]", "empty name"}, Wrong{"roots", "[\"~/.cache/x/\"]", "empty name"},
        Wrong{"roots", "[\"~/.cache/**/x\"]", "holds \"**\""},
        Wrong{"roots", "[\"~/.cache/[ab]/x\"]", "holds \"**\", \"?\" or \"[\""},
        Wrong{"roots", "[\"~/.ssh/cache\"]", "\".ssh\" holds data that is not a cache"},
        Wrong{"roots", "[\"/etc\"]", "must begin with"}, Wrong{"roots", "[\"~other/x\"]", "is relative"},
        Wrong{"roots", "[\"${HOME}/.cache/x\"]", "must begin with"},
        Wrong{"roots", "[\"${XDG_CACHE_HOME\"]", "must begin with"},
        Wrong{"roots", "[\"${XDG_CACHE_HOME}x/y\"]", "outside"},
        Wrong{"roots", "[\"~/.cache/a\\u0007b\"]", "control character"},
        Wrong{"roots", "[\"~/.cache/" + std::string(4096, 'x') + "\"]", "bytes: expected at most 4096"},
        Wrong{"roots", listOf(65, "\"~/.cache/x\""), "roots has 65 entries: expected at most 64"}));

INSTANTIATE_TEST_SUITE_P(
    Patterns, WrongValue,
    testing::Values(
        Wrong{"include", "[\"**\"]", "invalid include pattern \"**\": matches everything"},
        Wrong{"include", "[\"*\"]", "matches everything"},
        Wrong{"include", "[\"**/*\"]", "matches everything"},
        Wrong{"include", "[\"?*\"]", "matches everything"},
        Wrong{"include", "[\"[!x]*\"]", "matches everything"},
        Wrong{"include", "[\"*/**/?\"]", "matches everything"}, Wrong{"include", "[]", "include is empty"},
        Wrong{"include", "[\"/etc/*\"]", "is absolute"}, Wrong{"include", "[\"~/x\"]", "is absolute"},
        Wrong{"include", "[\"../x\"]", "holds \"..\""}, Wrong{"include", "[\"a/../../x\"]", "holds \"..\""},
        Wrong{"include", "[\"a//b\"]", "empty name"}, Wrong{"include", "[\"a/\"]", "empty name"},
        Wrong{"include", "[\"\"]", "is empty"}, Wrong{"include", "[\"a[bc\"]", "\"[\" without \"]\""},
        Wrong{"include", "[\"a[b/c]\"]", "\"[\" without \"]\""},
        Wrong{"include", "[\"a\\\\\"]", "ends in \"\\\""},
        Wrong{"include", "[\"" + std::string(4097, 'x') + "\"]", "expected at most 4096"},
        Wrong{"include", listOf(65, "\"x\""), "include has 65 entries"},
        Wrong{"include",
              "[\"" +
                  [] {
                    std::string deep = "x";
                    for (int i = 0; i < 64; ++i) deep += "/x";
                    return deep;
                  }() +
                  "\"]",
              "more than 63 names"},
        Wrong{"include", "[\".git/**\"]", "\".git\" holds data that is not a cache"},
        Wrong{"exclude", "[\"../x\"]", "holds \"..\""}, Wrong{"exclude", "\"x\"", "expected an array"},
        Wrong{"markers", "[\".ok\"]", "markers is for holders of kind units only"},
        Wrong{"unit_locks", "[{ flock = \"x\" }]", "unit_locks is for holders of kind units only"}));

INSTANTIATE_TEST_SUITE_P(
    Signs, WrongValue,
    testing::Values(
        Wrong{"in_use", "[{ lockfile = \"x\" }]",
              "unknown key \"lockfile\" in in_use: expected flock, record, exists, pid_link or process"},
        Wrong{"in_use", "[\"lock\"]", "an entry of in_use is not a table of one key"},
        Wrong{"in_use", "[{ flock = \"a\", record = \"b\" }]", "not a table of one key"},
        Wrong{"in_use", "[{ flock = 1 }]", "flock is an integer: expected a string"},
        Wrong{"in_use", "[{ flock = \"../lock\" }]", "holds \"..\""},
        Wrong{"in_use", "[{ flock = \"\" }]", "is empty"},
        Wrong{"in_use", "[{ flock = \"~/a*\" }]", "holds a wildcard"},
        Wrong{"in_use", "[{ process = \"a-name-of-sixteen\" }]", "longer than 15 bytes"},
        Wrong{"in_use", "[{ process = \"bin/go\" }]", "without \"/\""},
        Wrong{"in_use", "{}", "expected an array"}));

TEST(DefinitionReader, RefusesAgesThatAreMalformedTooShortOrTooLong) {
  for (const char* age : {"30x", "d", "30", "", "-3d", "3 d", "1.5d", "99999999999999999999d", "3661d"}) {
    const auto problems = problemsOf(DefinitionText().urgency({{"2", "\"" + std::string(age) + "\""}}));
    ASSERT_THAT(problems, SizeIs(1)) << age;
    EXPECT_THAT(problems.front(),
                HasSubstr("npm.toml:10: invalid age \"" + std::string(age) +
                          "\" in [urgency]: expected a number and s, m, h, d or w, such as 30d"));
  }
  for (const char* age : {"59m", "0d", "3599s"}) {
    const auto problems = problemsOf(DefinitionText().urgency({{"4", "\"" + std::string(age) + "\""}}));
    ASSERT_THAT(problems, SizeIs(1)) << age;
    EXPECT_THAT(problems.front(), HasSubstr("expected at least 1h"));
  }
  EXPECT_THAT(problemsOf(DefinitionText().urgency({{"4", "30"}})),
              ElementsAre("npm.toml:10: 4 is an integer: expected a string"));
}

TEST(DefinitionReader, RefusesUnknownUrgenciesAndEmptyOrMissingTables) {
  for (const char* key : {"0", "5", "12", "high"}) {
    EXPECT_THAT(problemsOf(DefinitionText().urgency({{key, "\"1d\""}})),
                ElementsAre("npm.toml:10: unknown key \"" + std::string(key) +
                            "\" in [urgency]: expected 1, 2, 3 or 4"));
  }
  EXPECT_THAT(problemsOf(DefinitionText().urgency({})), ElementsAre(HasSubstr("[urgency] is empty")));
  EXPECT_THAT(problemsOf(""),
              ElementsAre("npm.toml: missing table [holder]", "npm.toml: missing table [urgency]"));
  EXPECT_THAT(problemsOf(DefinitionText().also("[other]")),
              ElementsAre(HasSubstr("unknown key \"other\": expected")));
  EXPECT_THAT(problemsOf("holder = 1\nurgency = []\n"),
              ElementsAre("npm.toml: missing table [holder]", "npm.toml: missing table [urgency]",
                          HasSubstr("holder is an integer"), HasSubstr("urgency is an array")));
}

TEST(DefinitionReader, RefusesAHigherUrgencyThatAllowsLess) {
  EXPECT_THAT(
      problemsOf(DefinitionText().urgency({{"2", "\"7d\""}, {"4", "\"30d\""}})),
      ElementsAre(
          "npm.toml:11: the age 30d at urgency 4 exceeds 7d at a lower urgency: expected at most that"));
}

TEST(DefinitionReader, NamesEveryKeyThatIsMissing) {
  DefinitionText text;
  for (const char* key : {"name", "kind", "for", "class", "summary", "roots"}) text.holder(key, "");
  const auto problems = problemsOf(text);
  for (const char* key : {"name", "kind", "for", "class", "summary", "roots"}) {
    EXPECT_THAT(problems, testing::Contains("npm.toml:1: missing key " + std::string(key) + " in [holder]"));
  }
}

TEST(DefinitionReader, WhatExpiresNeedsAFloorAndGoesAtUrgencies2And3Only) {
  const DefinitionText text = DefinitionText().holder("class", "\"expirable\"").urgency({{"2", "\"7d\""}});
  EXPECT_THAT(problemsOf(text), ElementsAre(HasSubstr("expected keep_newest or keep_bytes")));
  EXPECT_THAT(problemsOf(DefinitionText(text).holder("keep_newest", "3")), IsEmpty());
  EXPECT_THAT(problemsOf(DefinitionText(text).holder("keep_bytes", "\"1M\"")), IsEmpty());
  for (const char* urgency : {"1", "4"}) {
    EXPECT_THAT(
        problemsOf(DefinitionText(text).holder("keep_newest", "3").urgency({{urgency, "\"7d\""}})),
        ElementsAre(HasSubstr("urgency " + std::string(urgency) + " of a holder of class expirable")));
  }
}

TEST(DefinitionReader, UnitsAreNamedAtAKnownDepth) {
  const DefinitionText text = DefinitionText().holder("kind", "\"units\"");
  EXPECT_THAT(problemsOf(DefinitionText(text).holder("include", "")),
              ElementsAre(HasSubstr("kind units needs at least one")));
  EXPECT_THAT(problemsOf(DefinitionText(text).holder("include", "[\"a/**\"]")),
              ElementsAre(HasSubstr("expected units at a known depth")));
  EXPECT_THAT(problemsOf(DefinitionText(text).holder("include", "[\"a/*\"]").holder("markers", "[\"a/b\"]")),
              ElementsAre(HasSubstr("expected a name without \"/\"")));
  EXPECT_THAT(
      problemsOf(
          DefinitionText(text).holder("include", "[\"a/*\"]").holder("unit_locks", "[{ process = \"x\" }]")),
      ElementsAre(HasSubstr("unknown key \"process\" in unit_locks: expected flock, record or exists")));
  EXPECT_THAT(
      problemsOf(
          DefinitionText(text).holder("include", "[\"a/*\"]").holder("unit_locks", "[{ flock = \"../x\" }]")),
      ElementsAre(HasSubstr("holds \"..\"")));
}

TEST(DefinitionReader, TheSystemsHoldersHaveNoHome) {
  const DefinitionText text =
      DefinitionText().holder("for", "\"system\"").holder("roots", "[\"/var/cache/x\"]");
  EXPECT_THAT(problemsOf(text), IsEmpty());
  EXPECT_THAT(problemsOf(DefinitionText(text).holder("roots", "[\"~/.cache/x\"]")),
              ElementsAre(HasSubstr("absolute path")));
  EXPECT_THAT(problemsOf(DefinitionText(text).holder("in_use", "[{ flock = \"~/x\" }]")),
              ElementsAre(HasSubstr("is in a home, but the holder is the system's")));
}

TEST(DefinitionReader, ReportsAllProblemsInTheOrderOfTheirLines) {
  EXPECT_THAT(
      problemsOf(
          "[holder]\nname = 1\nkind = \"x\"\nfor = \"user\"\nclass = \"regenerable\"\nsummary = \"s\"\n"
          "roots = [\n  \"~/.cache/x\",\n  \"/etc\",\n  \"a\"]\n[urgency]\n9 = \"1d\"\n4 = \"1x\"\n"),
      ElementsAre(HasSubstr("npm.toml:2:"), HasSubstr("npm.toml:3:"), HasSubstr("npm.toml:9:"),
                  HasSubstr("npm.toml:10:"), HasSubstr("npm.toml:12:"), HasSubstr("npm.toml:13:")));
}

TEST(DefinitionReader, ReportsAtMostTwentyProblems) {
  DefinitionText text;
  for (int i = 0; i < 100; ++i) text.holder("unknown" + std::to_string(i), "1");
  EXPECT_THAT(problemsOf(text), SizeIs(20));
}

TEST(DefinitionReader, RefusesWhatIsNotTomlOrNotText) {
  EXPECT_THAT(problemsOf("[holder]\nname = \n"), ElementsAre(HasSubstr("npm.toml:2: ")));
  EXPECT_THAT(problemsOf("[holder]\nname = \"a\"\nname = \"b\"\n"), ElementsAre(HasSubstr("npm.toml:3: ")));
  EXPECT_THAT(problemsOf("\xEF\xBB\xBF[holder]\n"), ElementsAre(HasSubstr("npm.toml:1: byte order mark")));
  EXPECT_THAT(problemsOf(std::string("[holder]\n\0", 10)),
              ElementsAre("npm.toml:2: NUL byte: expected text"));
  EXPECT_THAT(problemsOf("[holder]\nname = \"\xFF\xFE\"\n"), ElementsAre(HasSubstr("npm.toml:2: ")));
  EXPECT_THAT(problemsOf("[holder]\nsummary = \"" + std::string("a\0b", 3) + "\"\n"),
              ElementsAre(HasSubstr(":2: NUL")));
  EXPECT_THAT(problemsOf("a = " + std::string(30000, '[') + "\n"), SizeIs(1));
}

TEST(DefinitionReader, RefusesATableWhoseNameBeginsWithAnInvalidCharacter) {
  for (const char* text : {"[~npm]", "[(holder]\nname = 3\n", "[[~]]", "[holder.~]", "holder.~ = 1"}) {
    EXPECT_THAT(problemsOf(std::string(text)), ElementsAre(HasSubstr("npm.toml:1: "))) << text;
  }
}

TEST(DefinitionReader, RefusesLettersBeyondAsciiOutsideOfTexts) {
  for (const char* text : {"\xc3\xa9 = 1", "[holder] \xc3\xa9", "[h\xcd\x9b]", "a = \xe3\x80\x81"}) {
    EXPECT_THAT(problemsOf(std::string(text)), ElementsAre(HasSubstr("npm.toml:1: "))) << text;
  }
}

TEST(DefinitionReader, QuotesNoControlCharacters) {
  for (const std::string& problem : problemsOf(std::string("a = f\v\033[31m\n\"x\"\n")))
    EXPECT_EQ(problem.find_first_of("\v\033\n"), std::string::npos) << problem;
  EXPECT_THAT(problemsOf(std::string("a = f\v\n")), SizeIs(1));
}

TEST(DefinitionReader, RefusesWhatIsTooLong) {
  EXPECT_THAT(problemsOf(std::string(10U << 20, '#')), ElementsAre("npm.toml: it is larger than 64 KiB"));
}

/// Files in a directory of their own.
class DefinitionFile : public testing::Test {
 protected:
  [[nodiscard]] std::string problemOf(const std::string& name) const {
    const DefinitionResult result = readDefinition(directory_ / name);
    EXPECT_EQ(result.definition.has_value(), result.problems.empty());
    return result.problems.empty() ? std::string() : result.problems.front().text();
  }
  void write(const std::string& name, const std::string& text, mode_t mode = 0644) const {
    directory_.write(name, text);
    ::chmod((directory_ / name).c_str(), mode);
  }
  const kelvane::test::TemporaryDirectory directory_;
};

TEST_F(DefinitionFile, IsRead) {
  write("npm.toml", DefinitionText().text());
  EXPECT_EQ(problemOf("npm.toml"), "");
}

TEST_F(DefinitionFile, HasTheNameOfItsHolder) {
  write("pnpm.toml", DefinitionText().text());
  EXPECT_THAT(problemOf("pnpm.toml"),
              HasSubstr("the name \"npm\" differs from the file's: expected the file name npm.toml"));
}

TEST_F(DefinitionFile, ThatOthersCanWriteIsRefused) {
  for (const mode_t mode : {0664, 0646}) {
    write("npm.toml", DefinitionText().text(), mode);
    EXPECT_THAT(problemOf("npm.toml"), HasSubstr("others can write it"));
  }
}

TEST_F(DefinitionFile, IsNeverALinkAFifoOrADirectory) {
  write("real", DefinitionText().text());
  ASSERT_EQ(::symlink("real", (directory_ / "npm.toml").c_str()), 0);
  EXPECT_THAT(problemOf("npm.toml"), HasSubstr("symbolic link"));
  ASSERT_EQ(::mkfifo((directory_ / "fifo.toml").c_str(), 0600), 0);
  EXPECT_THAT(problemOf("fifo.toml"), HasSubstr("not a regular file"));
  ASSERT_EQ(::mkdir((directory_ / "directory.toml").c_str(), 0700), 0);
  EXPECT_THAT(problemOf("directory.toml"), HasSubstr("not a regular file"));
  EXPECT_THAT(problemOf("missing.toml"), HasSubstr("No such file"));
}

TEST_F(DefinitionFile, OfTenMegabytesIsRefusedWithoutReadingItAll) {
  write("npm.toml", "");
  std::filesystem::resize_file(directory_ / "npm.toml", 10U << 20);
  EXPECT_THAT(problemOf("npm.toml"), HasSubstr("larger than 64 KiB"));
}

}  // namespace
}  // namespace kelvane::caches
