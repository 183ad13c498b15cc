// The shipped definitions.

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "caches/definition_reader.h"
#include "caches/quantities.h"
#include "caches/safety.h"
#include "kelvane/cache_directory.h"
#include "tests/caches/temporary_directory.h"

namespace kelvane::caches {
namespace {

std::string contentOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::vector<std::filesystem::path> shippedFiles() {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(SHIPPED_DEFINITIONS))
    files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

class Shipped : public testing::TestWithParam<std::filesystem::path> {
 protected:
  Shipped() : result_(parseDefinition(contentOf(GetParam()), GetParam().filename())) {}
  [[nodiscard]] const Definition& definition() const { return *result_.definition; }
  void SetUp() override {
    for (const Problem& problem : result_.problems) ADD_FAILURE() << problem.text();
    ASSERT_TRUE(result_.definition);
  }
  const DefinitionResult result_;
};

TEST_P(Shipped, BearsTheNameOfItsFileAndAnIdThatTheDaemonTakes) {
  EXPECT_EQ(definition().name + ".toml", GetParam().filename());
  EXPECT_LE(("com.orvel.kelvane.caches." + definition().name).size(), 255U);
}

/// As alice has it.
std::string resolved(std::string root) {
  if (root.front() == '$')
    root = *variableDefault(root.substr(2, root.find('}') - 2)) + root.substr(root.find('}') + 1);
  if (root.front() == '~') root = "/home/alice" + root.substr(1);
  std::replace(root.begin(), root.end(), '*', 'x');
  return root;
}

TEST_P(Shipped, IsAllowedWhereItsRootsLead) {
  for (const std::string& root : definition().roots) {
    EXPECT_EQ(refusalAsWritten(root, definition()), std::nullopt) << root;
    EXPECT_EQ(refusal(resolved(root), definition(), "/home/alice"), std::nullopt) << root;
  }
}

TEST_P(Shipped, HasRulesThatACacheDirectoryCanBeOpenedWith) {
  const tests::TemporaryDirectory directory;
  for (const std::string& root : definition().roots) {
    client::CacheRules rules = definition().rules;
    for (const std::string& pattern : protectedBelow(resolved(root), definition(), "/home/alice"))
      rules.exclude.push_back(pattern);
    const auto cache = client::CacheDirectory::open(directory.path(), rules);
    EXPECT_TRUE(cache) << root << ": " << cache.error().reason;
  }
}

TEST_P(Shipped, IsDescribedInItsOwnSection) {
  const std::string page = contentOf(CACHES_PAGE);
  EXPECT_THAT(page, testing::HasSubstr("\n### " + definition().name + "\n"));
}

TEST_P(Shipped, HasTheAgesThatTheTableSays) {
  std::string row = "| [" + definition().name + "](#" + definition().name + ") |";
  for (const auto& age : definition().rules.ages)
    row += " " + (age ? ageText(*age) : std::string("–")) + " |";
  EXPECT_THAT(contentOf(CACHES_PAGE), testing::HasSubstr("\n" + row));
}

TEST_P(Shipped, GivesNothingRecentAtUrgencyOne) {
  // Urgency 1 is asked for first and often, so only files that were not used for months may go.
  const auto age = definition().rules.ages[0];
  EXPECT_TRUE(!age || *age >= std::chrono::hours(24 * 90));
}

INSTANTIATE_TEST_SUITE_P(Definitions, Shipped, testing::ValuesIn(shippedFiles()), [](const auto& parameter) {
  std::string name = parameter.param.stem();
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
});

TEST(Manual, DescribesEveryKeyOfAHolder) {
  const auto problems = parseDefinition("[holder]\nunknown = 1\n[urgency]\n1 = \"1d\"\n", "x").problems;
  const auto unknown = std::find_if(problems.begin(), problems.end(), [](const Problem& problem) {
    return problem.reason.find("expected one of ") != std::string::npos;
  });
  ASSERT_NE(unknown, problems.end());
  const std::string manual = contentOf(CACHES_MANUAL);
  std::istringstream keys(unknown->reason.substr(unknown->reason.find("one of ") + 7));
  std::size_t count = 0;
  for (std::string key; keys >> key; ++count) {
    if (key.back() == ',') key.pop_back();
    EXPECT_THAT(manual, testing::ContainsRegex("\n\\.TP\n\\.BR? " + key + "( |\n)"));
  }
  EXPECT_EQ(count, 16U);
}

TEST(ShippedDefinitions, AreThoseThatThePageNames) {
  std::set<std::string> described;
  std::istringstream page(contentOf(CACHES_PAGE));
  for (std::string line; std::getline(page, line);) {
    if (line.compare(0, 4, "### ") == 0) described.insert(line.substr(4));
  }
  std::set<std::string> shipped;
  for (const auto& file : shippedFiles()) shipped.insert(file.stem());
  EXPECT_EQ(described, shipped);
}

}  // namespace
}  // namespace kelvane::caches
