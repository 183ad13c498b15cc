#include "caches/user_rules.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "platform/foundation/file_descriptor.h"
#include "tests/foundation/temporary_directory.h"

namespace kelvane::caches {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using namespace std::chrono_literals;

constexpr auto day = 24h;

/// A home with a rules file; the holder is "npm".
class UserRules : public testing::Test {
 protected:
  UserRules() {
    definition_.name = "npm";
    definition_.rules.ages = {std::nullopt, 30 * day, 7 * day, 1h};
    definition_.rules.exclude = {"x"};
    definition_.rules.keep_bytes = 1000;
  }
  [[nodiscard]] Narrowed narrowed() const {
    const FileDescriptor home(::open(home_.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return narrow(definition_, home.get());
  }
  [[nodiscard]] Narrowed with(const std::string& rules) const {
    home_.write(".config/kelvane/caches.toml", rules);
    ::chmod(file().c_str(), 0600);
    return narrowed();
  }
  [[nodiscard]] std::string file() const { return home_ / ".config/kelvane/caches.toml"; }

  const test::TemporaryDirectory home_;
  Definition definition_;
};

TEST_F(UserRules, ThatAreNotThereChangeNothing) {
  const Narrowed result = narrowed();
  EXPECT_EQ(result.reason, "");
  EXPECT_TRUE(result.definition.enabled);
  EXPECT_EQ(result.definition.rules.ages, definition_.rules.ages);
}

TEST_F(UserRules, DisableHolders) {
  EXPECT_FALSE(with("disabled = [\"npm\"]").definition.enabled);
  EXPECT_TRUE(with("disabled = [\"pip\"]").definition.enabled);
}

TEST_F(UserRules, AddExcludePatterns) {
  const Narrowed result = with("[npm]\nexclude = [\"tmp/**\"]\n[pip]\nexclude = [\"y\"]\n");
  EXPECT_EQ(result.reason, "");
  EXPECT_THAT(result.definition.rules.exclude, ElementsAre("x", "tmp/**"));
}

TEST_F(UserRules, RaiseAges) {
  const Narrowed result = with("[npm]\n2 = \"60d\"\n4 = \"2d\"\n");
  EXPECT_EQ(result.reason, "");
  EXPECT_EQ(result.definition.rules.ages[1], 60 * day);
  EXPECT_EQ(result.definition.rules.ages[2], 7 * day);
  EXPECT_EQ(result.definition.rules.ages[3], 2 * day);
}

TEST_F(UserRules, ARaisedAgeRaisesThoseOfLowerUrgencies) {
  const Narrowed result = with("[npm]\n3 = \"90d\"\n");
  EXPECT_EQ(result.definition.rules.ages[1], 90 * day);
  EXPECT_EQ(result.definition.rules.ages[2], 90 * day);
  EXPECT_EQ(result.definition.rules.ages[3], 1h);
}

TEST_F(UserRules, NeverAtAnUrgencyIsNeverAtLowerOnes) {
  const Narrowed result = with("[npm]\n3 = \"never\"\n");
  EXPECT_EQ(result.definition.rules.ages[1], std::nullopt);
  EXPECT_EQ(result.definition.rules.ages[2], std::nullopt);
  EXPECT_EQ(result.definition.rules.ages[3], 1h);
  EXPECT_TRUE(result.definition.enabled);
  EXPECT_FALSE(with("[npm]\n4 = \"never\"\n").definition.enabled);
}

TEST_F(UserRules, RaiseTheFloor) {
  EXPECT_EQ(with("[npm]\nkeep_bytes = \"1G\"\n").definition.rules.keep_bytes, 1U << 30);
}

TEST_F(UserRules, NeverWiden) {
  EXPECT_THAT(
      with("[npm]\n2 = \"29d\"\n").reason,
      HasSubstr(
          "~/.config/kelvane/caches.toml:2: the age \"29d\" at urgency 2 in [npm] lets more go than the "
          "definition: expected at least 30d"));
  EXPECT_THAT(with("[npm]\n1 = \"90d\"\n").reason, HasSubstr("expected \"never\""));
  EXPECT_THAT(with("[npm]\nkeep_bytes = \"999\"\n").reason, HasSubstr("keeps less than the definition"));
  for (const char* key : {"roots = [\"~/x\"]", "include = [\"x\"]", "enabled = true",
                          "class = \"regenerable\"", "tagged_only = false", "in_use = []"}) {
    EXPECT_THAT(with("[npm]\n" + std::string(key) + "\n").reason,
                HasSubstr("users narrow a holder and never widen it"))
        << key;
  }
}

TEST_F(UserRules, DoNotEnableWhatIsDisabled) {
  definition_.enabled = false;
  EXPECT_FALSE(with("[npm]\n2 = \"60d\"\n").definition.enabled);
}

TEST_F(UserRules, ThatAreWrongStopAllHoldersOfThisUser) {
  for (const char* rules :
       {"disabled = \"npm\"", "disabled = [1]", "disabled = [\"Npm\"]", "enabled = [\"npm\"]", "npm = 1",
        "[pip]\n2 = \"x\"", "[pip]\nroots = []", "[pip]\nexclude = [\"/x\"]", "[pip]\nkeep_bytes = 1",
        "[pip]\n5 = \"1d\"", "not toml", "\xFF"}) {
    EXPECT_THAT(with(rules).reason, HasSubstr("~/.config/kelvane/caches.toml:")) << rules;
  }
}

TEST_F(UserRules, AreReadFromARegularFileOfTheUsersOnly) {
  ASSERT_EQ(with("").reason, "");
  std::filesystem::remove(file());
  ASSERT_EQ(::mkfifo(file().c_str(), 0600), 0);
  EXPECT_THAT(narrowed().reason, HasSubstr("not a regular file"));
  std::filesystem::remove(file());
  home_.write("elsewhere", "");
  ASSERT_EQ(::symlink((home_ / "elsewhere").c_str(), file().c_str()), 0);
  EXPECT_THAT(narrowed().reason, HasSubstr("symbolic link"));
  std::filesystem::remove(file());
  ASSERT_EQ(::mkdir(file().c_str(), 0700), 0);
  EXPECT_THAT(narrowed().reason, HasSubstr("not a regular file"));
}

TEST_F(UserRules, AreNotReadThroughALinkedDirectory) {
  home_.write("elsewhere/caches.toml", "");
  home_.write(".config/x", "");
  ASSERT_EQ(::symlink("../elsewhere", (home_ / ".config/kelvane").c_str()), 0);
  EXPECT_THAT(narrowed().reason, HasSubstr("symbolic link"));
}

TEST_F(UserRules, ThatOthersCanWriteStopAll) {
  ASSERT_EQ(with("").reason, "");
  ::chmod(file().c_str(), 0622);
  EXPECT_THAT(narrowed().reason, HasSubstr("writable by other users"));
}

TEST_F(UserRules, ThatAreTooLongOrUnreadableStopAll) {
  ASSERT_EQ(with("").reason, "");
  std::filesystem::resize_file(file(), (64U << 10) + 1);
  EXPECT_THAT(narrowed().reason, HasSubstr("larger than 64 KiB"));
}

}  // namespace
}  // namespace kelvane::caches
