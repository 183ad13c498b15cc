// Files of other users. Needs root to change their owners.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "caches/definition_store.h"
#include "caches/user_rules.h"
#include "platform/foundation/file_descriptor.h"
#include "tests/caches/definition_text.h"
#include "tests/foundation/temporary_directory.h"

namespace kelvane::caches {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr uid_t somebody = 12345;

class Ownership : public testing::Test {
 protected:
  void SetUp() override {
    directory_.write("npm.toml", test::DefinitionText().text());
    ::chmod((directory_ / "npm.toml").c_str(), 0644);
    ASSERT_TRUE(readDefinition(directory_ / "npm.toml").definition);
  }
  const kelvane::test::TemporaryDirectory directory_;
};

TEST_F(Ownership, ADefinitionOfSomebodyElseIsRefused) {
  ASSERT_EQ(::chown((directory_ / "npm.toml").c_str(), somebody, somebody), 0);
  const DefinitionResult result = readDefinition(directory_ / "npm.toml");
  EXPECT_FALSE(result.definition);
  EXPECT_THAT(result.problems.at(0).text(), HasSubstr("owned by another user"));
}

TEST_F(Ownership, ADirectoryOfSomebodyElseIsNotUsed) {
  ASSERT_EQ(readDefinitions({directory_.path(), directory_ / "none"}).definitions.size(), 1U);
  ASSERT_EQ(::chown(directory_.path().c_str(), somebody, somebody), 0);
  const DefinitionStore store = readDefinitions({directory_.path(), directory_ / "none"});
  EXPECT_THAT(store.definitions, IsEmpty());
  EXPECT_THAT(store.problems.at(0).text(), HasSubstr("the directory is owned by another user"));
}

TEST_F(Ownership, RulesOfSomebodyElseStopEverything) {
  directory_.write(".config/kelvane/caches.toml", "");
  const std::string file = directory_ / ".config/kelvane/caches.toml";
  ::chmod(file.c_str(), 0600);
  const FileDescriptor home(::open(directory_.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(narrow(Definition(), home.get()).reason, "");
  ASSERT_EQ(::chown(file.c_str(), somebody, somebody), 0);
  EXPECT_THAT(narrow(Definition(), home.get()).reason, HasSubstr("owned by another user"));
}

}  // namespace
}  // namespace kelvane::caches
