#include "support/paths.h"

#include <gtest/gtest.h>

#include "support/token.h"
#include "tests/support/scoped_environment.h"

namespace kelvane::tests {
namespace {

TEST(Directories, AreWhatTheServiceManagerNames) {
  const ScopedEnvironment runtime("RUNTIME_DIRECTORY", "/r");
  const ScopedEnvironment state("STATE_DIRECTORY", "/s");
  const ScopedEnvironment configuration("CONFIGURATION_DIRECTORY", "/c");
  EXPECT_EQ(runtimeDirectory(), "/r");
  EXPECT_EQ(stateDirectory(), "/s");
  EXPECT_EQ(configurationDirectory(), "/c");
}

TEST(Directories, HaveDefaultsWhenNobodyNamesThem) {
  const ScopedEnvironment runtime("RUNTIME_DIRECTORY", std::nullopt);
  const ScopedEnvironment state("STATE_DIRECTORY", std::nullopt);
  const ScopedEnvironment configuration("CONFIGURATION_DIRECTORY", "");
  EXPECT_EQ(runtimeDirectory(), "/run/kelvane");
  EXPECT_EQ(stateDirectory(), "/var/lib/kelvane");
  EXPECT_EQ(configurationDirectory(), "/etc/kelvane");
}

TEST(Directories, OfSeveralTheFirstCounts) {
  const ScopedEnvironment runtime("RUNTIME_DIRECTORY", "/run/one:/run/two");
  EXPECT_EQ(runtimeDirectory(), "/run/one");
}

TEST(DeclaredServiceSocket, BearsTheServicesID) {
  const ScopedEnvironment runtime("RUNTIME_DIRECTORY", "/r");
  EXPECT_EQ(declaredServiceSocket("com.example.cache"), "/r/services/com.example.cache");
  EXPECT_EQ(declaredServiceSocket("..."), "/r/services/...");
}

TEST(DeclaredServiceSocket, AnIDThatIsNoFileNameNeverBecomesAPath) {
  for (const std::string& ID :
       {std::string(), std::string("."), std::string(".."), std::string("a/b"), std::string("/etc"),
        std::string("../x"), std::string("a\0b", 3), std::string(256, 'x')}) {
    EXPECT_EQ(declaredServiceSocket(ID), "") << ID;
  }
}

TEST(Token, IsARandomNumberInHexadecimal) {
  const Value one = createKelvaneToken();
  const Value other = createKelvaneToken();
  ASSERT_TRUE(one.isString());
  EXPECT_EQ(one.string()->size(), 32U);
  EXPECT_EQ(one.string()->find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_FALSE(one == other);
}

}  // namespace
}  // namespace kelvane::tests
