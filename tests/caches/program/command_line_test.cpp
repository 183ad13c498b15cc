// The commands of kelvane-caches, also through `kelvanectl caches`.

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/caches/program/caches_machine.h"
#include "tests/tools/program.h"
#include "tools/json.h"
#include "tools/screen.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

const std::string ages = "2 = \"30d\"\n3 = \"7d\"\n4 = \"1h\"";

std::string contentsOf(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(CachesList, ShowsWhatCouldGoAtEachUrgencyAndWhyNothingCan) {
  const CachesMachine machine(64);
  machine.define("photos", ages);
  machine.define("fresh", "2 = \"30d\"\n3 = \"14d\"");
  machine.define("absent", ages);
  fs::create_symlink("/dev/null", machine.definitions() + "/gone.toml");
  machine.fill("photos", 4, mebibyte, 40 * day, "old");
  machine.fill("photos", 2, mebibyte, 10 * day, "middle");
  machine.fill("fresh", 1, mebibyte, day);
  const Finished list = machine.caches({"list"});
  EXPECT_EQ(list.status, 0);
  EXPECT_THAT(list.output, AllOf(ContainsRegex("photos +0 B +4.0 MiB +6.0 MiB +6.0 MiB  /home\n"),
                                 ContainsRegex("fresh +all younger than 14 days\n"),
                                 ContainsRegex("absent +.*no such directory\n"),
                                 ContainsRegex("gone +masked: kelvanectl caches enable gone\n")));
  expectMatchesSchema(machine.caches({"list", "--json"}).output);
  EXPECT_EQ(machine.ctlCaches({"list"}).output, list.output);
  EXPECT_EQ(machine.ctlCaches({}).output, list.output) << "alone it lists";
  EXPECT_THAT(machine.cachesAsAlice({"list"}).output, HasSubstr("6.0 MiB")) << "a user sees the own caches";
  EXPECT_EQ(machine.ctlCaches({"--json"}).output, machine.caches({"--json", "list"}).output);
}

TEST(CachesList, SaysAReasonThatManyShareOnce) {
  const CachesMachine machine(64);
  for (const char* const name : {"a", "b", "c", "d", "photos"}) machine.define(name, ages);
  machine.fill("photos", 4, mebibyte, 40 * day);
  const Finished list = machine.caches({"list"});
  EXPECT_THAT(list.output, HasSubstr("there is no such directory: a, b, c, d\n"));
  EXPECT_LT(list.output.find("photos"), list.output.find("no such directory"));
}

TEST(CachesList, FitsNarrowScreens) {
  const CachesMachine machine(64);
  machine.define("photos", ages);
  for (int i = 0; i < 12; ++i) machine.define("cache-" + std::to_string(i), ages);
  machine.fill("photos", 4, mebibyte, 40 * day, "old");
  for (const char* const width : {"40", "60", "80", "120"}) {
    const Finished list =
        run({"env", std::string("COLUMNS=") + width, built("kelvane-caches"), "list"}, machine.environment());
    std::istringstream lines(list.output);
    for (std::string line; std::getline(lines, line);)
      EXPECT_LE(tools::columns(line), static_cast<std::size_t>(std::atoi(width))) << line;
  }
}

TEST(CachesExplain, SaysWhatWouldGoAndDeletesNothing) {
  const CachesMachine machine(64);
  machine.define("photos", ages);
  machine.fill("photos", 4, mebibyte, 40 * day, "old");
  machine.fill("photos", 2, mebibyte, day, "young");
  const Finished explained = machine.caches({"explain", "photos", "--urgency", "3"});
  EXPECT_EQ(explained.status, 0);
  EXPECT_THAT(
      explained.output,
      AllOf(HasSubstr("photos: what photos keeps\n"), HasSubstr(machine.cacheOf("photos")),
            HasSubstr("would go: 4.0 MiB in 4 files"), HasSubstr("4.0 MiB would go at urgency 3.\n")));
  EXPECT_EQ(machine.countFiles("photos"), 6U);
  expectMatchesSchema(machine.caches({"explain", "photos", "--json"}).output);
  EXPECT_EQ(machine.ctlCaches({"explain", "photos", "--urgency", "3"}).output, explained.output);
}

TEST(CachesExplain, HeedsAnAmountAndAVolume) {
  const CachesMachine machine(64);
  const Volume other(8);
  machine.define("photos", ages);
  machine.fill("photos", 4, mebibyte, 40 * day, "old");
  EXPECT_EQ(machine.explained("photos", 3, {"--amount", "2M"})["bytes"], Value(2 * mebibyte));
  EXPECT_EQ(machine.explained("photos", 3, {"--volume", machine.home()})["bytes"], Value(4 * mebibyte));
  EXPECT_EQ(machine.explained("photos", 3, {"--volume", other.path()})["bytes"], Value(0));
}

TEST(CachesExplain, NamesEachFileOnALineOfItsOwnWhateverItsName) {
  const CachesMachine machine(64);
  machine.define("photos", ages);
  for (const char* const name : {"plain", "two\nlines", "esc\x1b[31m", "latin\xe9", "back\\slash"})
    machine.fill("photos", 1, 4096, 40 * day, name);
  const Finished files = machine.caches({"explain", "photos", "--files"});
  EXPECT_EQ(files.status, 0);
  for (const char* const name :
       {"plain0\n", "two\\x0alines0\n", "esc\\x1b[31m0\n", "latin\\xe90\n", "back\\x5cslash0\n"}) {
    EXPECT_THAT(files.output, HasSubstr(machine.cacheOf("photos") + "/" + name));
  }
  EXPECT_THAT(files.output, Not(HasSubstr("\x1b")));
  const Finished json = machine.caches({"explain", "photos", "--files", "--json"});
  expectMatchesSchema(json.output);
  const tools::ReadJson read = tools::readJson(json.output);
  ASSERT_TRUE(read.valid) << json.output;
  EXPECT_EQ((*read.value.dictionary())["items"].array()->size(), 5U);
}

TEST(CachesExplain, SaysWhichCachesThereAre) {
  const CachesMachine machine(16);
  machine.define("photos", ages);
  const Finished unknown = machine.caches({"explain", "fotos"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_THAT(unknown.output,
              HasSubstr("unknown cache \"fotos\": `kelvanectl caches` lists those that are known"));
  EXPECT_EQ(machine.caches({"explain", "photos", "--urgency", "9"}).status, 2);
  EXPECT_EQ(machine.caches({"explain", "photos", "--amount", "much"}).status, 2);
  EXPECT_EQ(machine.caches({"explain", "photos", "--volume", "/nowhere"}).status, 2);
  EXPECT_EQ(machine.caches({"clean"}).status, 2);
}

TEST(CachesCheck, NamesTheLineAndTheReason) {
  const CachesMachine machine(16);
  machine.define("photos", ages);
  const std::string good = machine.definitions() + "/photos.toml";
  const std::string bad = machine.definitions() + "/bad.toml";
  writeFile(bad, definitionText("bad", "3 = \"soon\""));
  EXPECT_EQ(machine.caches({"check", good}).status, 0);
  EXPECT_EQ(machine.caches({"check", good}).output, good + ": good\n");
  const Finished checked = machine.caches({"check", good, bad});
  EXPECT_EQ(checked.status, 1);
  EXPECT_THAT(checked.output, ContainsRegex("bad.toml:9: .*\"soon\""));
  EXPECT_EQ(machine.ctlCaches({"check", good, bad}).status, 1);
  expectMatchesSchema(machine.caches({"check", "--json", good, bad}).output);
}

/// Shipped definitions, in a /usr/lib that only the test machine sees.
class ShippedDefinitions {
 public:
  ShippedDefinitions() {
    EXPECT_EQ(::mount("kelvane-test-upper", upper_.path().c_str(), "tmpfs", 0, nullptr), 0);
    fs::create_directories(upper_.path() + "/changes");
    fs::create_directories(upper_.path() + "/work");
    const std::string options =
        "lowerdir=/usr/lib,upperdir=" + upper_.path() + "/changes,workdir=" + upper_.path() + "/work";
    EXPECT_EQ(::mount("kelvane-test-lib", "/usr/lib", "overlay", 0, options.c_str()), 0);
    fs::create_directories(directory);
  }
  ~ShippedDefinitions() {
    ::umount2("/usr/lib", MNT_DETACH);
    ::umount2(upper_.path().c_str(), MNT_DETACH);
  }
  ShippedDefinitions(const ShippedDefinitions&) = delete;
  ShippedDefinitions& operator=(const ShippedDefinitions&) = delete;

  static constexpr const char* directory = "/usr/lib/kelvane/caches.d";

 private:
  const Folder upper_;
};

TEST(CachesSwitch, RootMasksACacheThatIsShippedAndUnmasksIt) {
  const ShippedDefinitions shipped;
  const CachesMachine machine(64);
  writeFile(std::string(ShippedDefinitions::directory) + "/photos.toml", definitionText("photos", ages));
  machine.fill("photos", 4, mebibyte, 40 * day);
  const std::string mask = machine.definitions() + "/photos.toml";
  EXPECT_THAT(machine.caches({"list"}).output, HasSubstr("4.0 MiB"));
  const Finished disabled = machine.ctlCaches({"disable", "photos"});
  EXPECT_EQ(disabled.output, "photos is disabled now: " + mask + " is a link to /dev/null.\n");
  EXPECT_EQ(fs::read_symlink(mask), "/dev/null");
  EXPECT_EQ(machine.caches({"disable", "photos"}).output, "photos is disabled already.\n");
  EXPECT_THAT(machine.caches({"list"}).output,
              HasSubstr("photos  masked: kelvanectl caches enable photos\n"));
  EXPECT_EQ(machine.caches({"explain", "photos"}).status, 2);
  EXPECT_EQ(machine.ctlCaches({"enable", "photos"}).status, 0);
  EXPECT_FALSE(fs::exists(fs::symlink_status(mask)));
  EXPECT_THAT(machine.caches({"list"}).output, HasSubstr("4.0 MiB"));
}

TEST(CachesSwitch, RootsOwnDefinitionIsNeverReplacedByAMask) {
  const CachesMachine machine(64);
  machine.define("photos", ages);
  const std::string own = machine.definitions() + "/photos.toml";
  const Finished refused = machine.caches({"disable", "photos"});
  EXPECT_EQ(refused.status, 6);
  EXPECT_THAT(refused.output, HasSubstr(own + " is a file of your own"));
  EXPECT_EQ(contentsOf(own), definitionText("photos", ages));
}

TEST(CachesSwitch, EnablingAMaskedCacheRemovesTheLinkOnly) {
  const CachesMachine machine(64);
  fs::create_symlink("/dev/null", machine.definitions() + "/apt.toml");
  const Finished enabled = machine.caches({"enable", "apt", "--json"});
  EXPECT_EQ(enabled.status, 0) << enabled.output;
  expectMatchesSchema(enabled.output);
  EXPECT_FALSE(fs::exists(fs::symlink_status(machine.definitions() + "/apt.toml")));
}

TEST(CachesSwitch, RootSwitchesAPersonalCacheOnAndOff) {
  const CachesMachine machine(64);
  std::string text = definitionText("letters", ages);
  text.replace(text.find("regenerable"), std::string("regenerable").size(), "personal");
  writeFile(machine.definitions() + "/letters.toml", text);
  machine.fill("letters", 1, mebibyte, 40 * day);
  EXPECT_THAT(machine.caches({"list"}).output,
              HasSubstr("letters  disabled (personal): kelvanectl caches enable letters\n"));
  EXPECT_EQ(machine.caches({"enable", "letters"}).status, 0);
  EXPECT_TRUE(fs::is_regular_file(machine.definitions() + "/letters.enabled"));
  EXPECT_THAT(machine.caches({"list"}).output, ContainsRegex("letters .*1.0 MiB"));
  EXPECT_EQ(machine.caches({"enable", "letters"}).output, "letters is enabled already.\n");
  EXPECT_EQ(machine.caches({"disable", "letters"}).status, 0);
  EXPECT_FALSE(fs::exists(machine.definitions() + "/letters.enabled"));
  EXPECT_EQ(machine.caches({"disable", "letters"}).output, "letters is disabled already.\n");
}

TEST(CachesSwitch, AUserSwitchesOnlyTheOwnCachesOff) {
  const CachesMachine machine(64);
  machine.define("photos", ages);
  machine.fill("photos", 4, mebibyte, 40 * day);
  const std::string own = machine.home() + "/.config/kelvane/caches.toml";
  const Finished disabled = machine.cachesAsAlice({"disable", "photos"});
  EXPECT_EQ(disabled.status, 0) << disabled.output;
  EXPECT_THAT(contentsOf(own), HasSubstr("disabled = [\"photos\"]\n"));
  struct stat status {};
  ASSERT_EQ(::stat(own.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, alice_id);
  EXPECT_THAT(machine.caches({"list"}).output, Not(HasSubstr("4.0 MiB"))) << "root heeds it";
  EXPECT_EQ(machine.cachesAsAlice({"enable", "photos"}).status, 0);
  EXPECT_THAT(contentsOf(own), HasSubstr("disabled = []\n"));
  EXPECT_THAT(machine.caches({"list"}).output, HasSubstr("4.0 MiB"));
}

TEST(CachesSwitch, AFileThatAUserWroteByHandIsLeftAlone) {
  const CachesMachine machine(64);
  machine.define("photos", ages);
  fs::create_directory(machine.home() + "/.config/kelvane");
  const std::string own = machine.home() + "/.config/kelvane/caches.toml";
  const std::string by_hand = "[photos]\n3 = \"60d\"\n";
  writeFile(own, by_hand);
  fs::permissions(own, fs::perms(0644));
  const Finished refused = machine.cachesAsAlice({"disable", "photos"});
  EXPECT_EQ(refused.status, 6);
  EXPECT_THAT(refused.output, AllOf(HasSubstr(own), HasSubstr("disabled = [\"photos\"]")));
  EXPECT_EQ(contentsOf(own), by_hand);
}

TEST(CachesSwitch, AUserCannotSwitchOnWhatRootSwitchedOff) {
  const CachesMachine machine(64);
  fs::create_symlink("/dev/null", machine.definitions() + "/apt.toml");
  EXPECT_EQ(machine.cachesAsAlice({"enable", "apt"}).status, 3);
  EXPECT_TRUE(fs::is_symlink(machine.definitions() + "/apt.toml"));
}

TEST(CachesProgram, SaysWhatItDoes) {
  const Finished help = run({built("kelvane-caches"), "--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* const command : {"list", "explain", "check", "enable", "disable"})
    EXPECT_THAT(help.output, HasSubstr(command));
  EXPECT_THAT(run({built("kelvane-caches"), "--version"}).output, HasSubstr("kelvane-caches "));
}

TEST(KelvanectlCaches, SaysThatThePackageIsMissing) {
  const Folder folder;
  fs::copy(built("kelvanectl"), folder.path() + "/kelvanectl");
  const Finished missing = run({folder.path() + "/kelvanectl", "caches"});
  if (fs::exists("/usr/libexec/kelvane-caches")) GTEST_SKIP() << "the package is installed on this machine";
  EXPECT_EQ(missing.status, 6);
  EXPECT_EQ(
      missing.output,
      "kelvanectl: /usr/libexec/kelvane-caches is not installed: `apt install kelvane-caches` brings it\n");
}

TEST(KelvanectlCaches, RunsNothingThatSomebodyPutBesideItInAStickyDirectory) {
  const Folder folder;
  fs::copy(built("kelvanectl"), folder.path() + "/kelvanectl");
  writeFile(folder.path() + "/kelvane-caches", "#!/bin/sh\necho taken over\n");
  fs::permissions(folder.path() + "/kelvane-caches", fs::perms(0755));
  EXPECT_THAT(run({folder.path() + "/kelvanectl", "caches"}).output, HasSubstr("taken over"))
      << "beside it in a directory that only its owner can write";
  fs::permissions(folder.path(), fs::perms(01777));
  EXPECT_THAT(run({folder.path() + "/kelvanectl", "caches"}).output, Not(HasSubstr("taken over")));
}

}  // namespace
}  // namespace kelvane::tests
