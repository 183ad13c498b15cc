#include "caches/definition_store.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/caches/definition_text.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/scoped_environment.h"

namespace kelvane::caches {
namespace {

using test::DefinitionText;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

/// Two directories of definitions, in place of the machine's.
class Store : public testing::Test {
 protected:
  Store() {
    for (const char* name : {"shipped", "own"}) {
      std::filesystem::create_directory(directory_ / name);
      ::chmod((directory_ / name).c_str(), 0755);
    }
  }
  void write(const std::string& name, const std::string& text) const {
    directory_.write(name, text);
    ::chmod((directory_ / name).c_str(), 0644);
  }
  void mask(const std::string& name) const {
    ASSERT_EQ(::symlink("/dev/null", (directory_ / ("own/" + name)).c_str()), 0);
  }
  [[nodiscard]] DefinitionStore read() const {
    return readDefinitions({directory_ / "shipped", directory_ / "own"});
  }

  static std::string definition(const std::string& name, const std::string& summary = "s") {
    return DefinitionText()
        .holder("name", "\"" + name + "\"")
        .holder("summary", "\"" + summary + "\"")
        .text();
  }
  static std::vector<std::string> namesOf(const DefinitionStore& store) {
    std::vector<std::string> names;
    for (const Definition& each : store.definitions) names.push_back(each.name);
    return names;
  }

  const kelvane::test::TemporaryDirectory directory_;
};

TEST_F(Store, HoldsWhatIsShippedAndWhatTheMachineAdds) {
  write("shipped/npm.toml", definition("npm"));
  write("shipped/apt.toml", definition("apt"));
  write("own/build.toml", definition("build"));
  write("shipped/README", "not a definition");
  const DefinitionStore store = read();
  EXPECT_THAT(store.problems, IsEmpty());
  EXPECT_THAT(namesOf(store), ElementsAre("apt", "build", "npm"));
  EXPECT_TRUE(store.definitions[0].shipped);
  EXPECT_FALSE(store.definitions[1].shipped);
  EXPECT_EQ(store.definitions[1].file, directory_ / "own/build.toml");
}

TEST_F(Store, TheAdministratorsFileReplacesTheShippedOneOfItsName) {
  write("shipped/npm.toml", definition("npm", "shipped"));
  write("own/npm.toml", definition("npm", "own"));
  const DefinitionStore store = read();
  ASSERT_THAT(store.definitions, SizeIs(1));
  EXPECT_EQ(store.definitions.front().summary, "own");
  EXPECT_TRUE(store.definitions.front().shipped) << "it answers under the shipped one's ID";
}

TEST_F(Store, ALinkToDevNullMasks) {
  write("shipped/npm.toml", definition("npm"));
  mask("npm.toml");
  const DefinitionStore store = read();
  EXPECT_THAT(store.definitions, IsEmpty());
  EXPECT_THAT(store.masked, ElementsAre("npm"));
  EXPECT_THAT(store.problems, IsEmpty());
}

TEST_F(Store, AnyOtherLinkIsAProblemAndNeverBringsTheShippedOneBack) {
  write("shipped/npm.toml", definition("npm"));
  write("shipped/apt.toml", definition("apt"));
  for (const char* target : {"/dev/null/", "/dev/zero", "../shipped/npm.toml", "missing"}) {
    ASSERT_EQ(::symlink(target, (directory_ / "own/npm.toml").c_str()), 0);
    const DefinitionStore store = read();
    EXPECT_THAT(namesOf(store), ElementsAre("apt")) << target;
    EXPECT_THAT(store.masked, IsEmpty()) << target;
    ASSERT_THAT(store.problems, SizeIs(1)) << target;
    EXPECT_THAT(store.problems.front().text(), HasSubstr("own/npm.toml: it is a symbolic link")) << target;
    ::unlink((directory_ / "own/npm.toml").c_str());
  }
}

TEST_F(Store, AnInvalidFileDisablesItsHolderOnlyAndNeverFallsBack) {
  write("shipped/npm.toml", definition("npm"));
  write("shipped/apt.toml", definition("apt"));
  write("shipped/pip.toml", "nonsense");
  write("own/npm.toml", "[holder]\n");
  const DefinitionStore store = read();
  EXPECT_THAT(namesOf(store), ElementsAre("apt"));
  std::vector<std::string> files;
  for (const Problem& problem : store.problems) files.push_back(problem.file);
  EXPECT_THAT(files, testing::Contains(directory_ / "own/npm.toml"));
  EXPECT_THAT(files, testing::Contains(directory_ / "shipped/pip.toml"));
}

TEST_F(Store, APersonalHolderIsEnabledByAnEmptyFile) {
  write("shipped/target.toml",
        DefinitionText().holder("name", "\"target\"").holder("class", "\"personal\"").text());
  EXPECT_FALSE(read().definitions.at(0).enabled);
  write("own/target.enabled", "");
  EXPECT_TRUE(read().definitions.at(0).enabled);
  EXPECT_THAT(read().problems, IsEmpty());
}

TEST_F(Store, OnlyAnEmptyFileOfTheAdministratorsEnables) {
  write("shipped/target.toml",
        DefinitionText().holder("name", "\"target\"").holder("class", "\"personal\"").text());
  write("shipped/target.enabled", "");
  EXPECT_FALSE(read().definitions.at(0).enabled);
  write("own/target.enabled", "no");
  EXPECT_FALSE(read().definitions.at(0).enabled);
  EXPECT_THAT(read().problems.at(0).text(), HasSubstr("target.enabled: it is not empty"));
  write("own/target.enabled", "");
  ::chmod((directory_ / "own/target.enabled").c_str(), 0666);
  EXPECT_FALSE(read().definitions.at(0).enabled);
  EXPECT_THAT(read().problems.at(0).text(), HasSubstr("others can write it"));
  mask("other.enabled");
  EXPECT_THAT(read().problems, SizeIs(2));
}

TEST_F(Store, EnablingAnUnknownHolderIsAProblem) {
  write("own/nothing.enabled", "");
  EXPECT_THAT(read().problems.at(0).text(), HasSubstr("no usable definition has this name"));
}

TEST_F(Store, OfMissingDirectoriesIsEmpty) {
  const DefinitionStore store = readDefinitions({directory_ / "none", directory_ / "nothing"});
  EXPECT_THAT(store.definitions, IsEmpty());
  EXPECT_THAT(store.problems, IsEmpty());
}

TEST_F(Store, UsesNothingWhenADirectoryCannotBeTrusted) {
  write("shipped/npm.toml", definition("npm"));
  ASSERT_EQ(::chmod((directory_ / "own").c_str(), 0777), 0);
  const DefinitionStore store = read();
  EXPECT_THAT(store.definitions, IsEmpty());
  EXPECT_THAT(store.problems.at(0).text(), HasSubstr("other users can write to the directory"));
}

TEST_F(Store, UsesNothingWhenADirectoryIsALinkOrAFile) {
  write("shipped/npm.toml", definition("npm"));
  ASSERT_EQ(::symlink("shipped", (directory_ / "link").c_str()), 0);
  for (const char* name : {"link", "shipped/npm.toml"}) {
    const DefinitionStore store = readDefinitions({directory_ / "shipped", directory_ / name});
    EXPECT_THAT(store.definitions, IsEmpty()) << name;
    EXPECT_THAT(store.problems, SizeIs(1)) << name;
  }
}

TEST_F(Store, UsesNothingOfMoreThan256Files) {
  for (int i = 0; i < 256; ++i) {
    const std::string name = "n" + std::to_string(i);
    write("own/" + name + ".toml", definition(name));
  }
  EXPECT_THAT(read().definitions, SizeIs(256));
  write("own/one-more.toml", definition("one-more"));
  const DefinitionStore store = read();
  EXPECT_THAT(store.definitions, IsEmpty());
  EXPECT_THAT(store.problems.at(0).text(), HasSubstr("more than 256 files"));
}

TEST_F(Store, FilesThatBeginWithADotAreNotRead) {
  write("own/.npm.toml.swp", "");
  write("own/.npm.toml", "nonsense");
  EXPECT_THAT(read().problems, IsEmpty());
}

TEST(DefinitionDirectories, AreTheDaemons) {
  const tests::ScopedEnvironment unset("CONFIGURATION_DIRECTORY", std::nullopt);
  EXPECT_EQ(definitionDirectories().shipped, "/usr/lib/kelvane/caches.d");
  EXPECT_EQ(definitionDirectories().own, "/etc/kelvane/caches.d");
  const tests::ScopedEnvironment set("CONFIGURATION_DIRECTORY", "/c");
  EXPECT_EQ(definitionDirectories().own, "/c/caches.d");
}

}  // namespace
}  // namespace kelvane::caches
