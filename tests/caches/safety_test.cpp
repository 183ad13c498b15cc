#include "caches/safety.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "platform/foundation/file_descriptor.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/random_choices.h"

namespace kelvane::caches {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string home = "/home/alice";

Definition userDefinition(std::vector<std::string> include = {"a/**"}) {
  Definition definition;
  definition.owner = Owner::user;
  definition.rules.include = std::move(include);
  return definition;
}
Definition systemDefinition(std::vector<std::string> include = {"a/**"}) {
  Definition definition = userDefinition(std::move(include));
  definition.owner = Owner::system;
  return definition;
}
Definition unitDefinition(std::vector<std::string> include) {
  Definition definition = userDefinition(std::move(include));
  definition.kind = Kind::units;
  definition.cache_class = CacheClass::personal;
  return definition;
}
/// The refusal of a path below ~, or of an absolute one of the system; empty when it is allowed.
std::string of(const std::string& path, const Definition& definition) {
  const bool in_home = definition.owner == Owner::user && path.front() != '/';
  return refusal(in_home ? home + "/" + path : path, definition, home).value_or("");
}

TEST(Safety, AllowsTheCachesOfAHome) {
  const Definition definition = userDefinition();
  for (const char* path :
       {".cache/npm", ".cache/mozilla/firefox/x.default/cache2", ".npm/_cacache", ".cargo/registry/src",
        "go/pkg/mod", ".config/Code/CachedData", ".config/chromium/Default/Code Cache/js",
        ".config/chromium/Default/GPUCache", ".var/app/org.example.App/cache/thing",
        "snap/app/common/.cache/thing", ".local/share/NuGet/http-cache"}) {
    EXPECT_EQ(of(path, definition), "") << path;
  }
}

TEST(Safety, AllowsTheCachesOfTheSystem) {
  for (const char* path : {"/var/cache/apt/archives", "/var/lib/apt/lists", "/var/lib/systemd/coredump",
                           "/var/tmp/build", "/tmp/build", "/var/crash"}) {
    EXPECT_EQ(of(path, systemDefinition()), "") << path;
  }
  EXPECT_EQ(of("/var/log", systemDefinition({"**/*.[0-9].gz"})), "");
}

TEST(Safety, RefusesTheHomeAndWhatIsOutsideIt) {
  const Definition definition = userDefinition();
  for (const char* path : {"/home/alice", "/home/alice/", "/home/alicia/.cache/npm", "/home/bob/.cache/npm",
                           "/", "", "/etc", "/home/alice/.cache/../.ssh", "/home/alice//.cache/npm",
                           "/home/alice/./.cache/npm", ".cache/npm", "/var/cache/apt"}) {
    EXPECT_NE(refusal(path, definition, home), std::nullopt) << path;
  }
  for (const char* no_home : {"", "/", "home/alice", "/home/../alice", "/home/alice/"}) {
    EXPECT_NE(refusal(std::string(no_home) + "/.cache/npm", definition, no_home), std::nullopt) << no_home;
  }
}

TEST(Safety, RefusesUnknownDirectoriesOfAHome) {
  for (const char* path : {"src",
                           "src/project",
                           ".config",
                           ".config/app",
                           ".config/app/Preferences",
                           ".local",
                           ".local/share",
                           ".local/share/app",
                           ".local/state/x",
                           ".app",
                           ".app/data",
                           ".cargo",
                           ".cargo/bin",
                           ".cargo/registry",
                           ".cargo/registry/index",
                           ".npm",
                           ".gradle",
                           ".m2",
                           ".nuget",
                           ".var/app",
                           ".var/app/org.example.App/data/x",
                           ".var/app/org.example.App/config",
                           "snap/app/common/x",
                           "go",
                           "go/src",
                           "go/pkg",
                           ".config/Cache"}) {
    EXPECT_NE(of(path, userDefinition()), "") << path;
  }
}

TEST(Safety, RefusesDirectoriesOfTheSystemThatAreNotCaches) {
  for (const char* path : {"/", "/etc/x", "/usr/share/x", "/var", "/var/cache", "/var/lib", "/var/lib/dpkg",
                           "/var/tmp", "/tmp", "/var/log/journal/x", "/var/log/audit", "/var/cache/debconf",
                           "/var/cache/private/x", "/var/lib/apt", "/boot", "/home/alice/.cache/npm",
                           "/tmp/systemd-private-1-x", "/tmp/.X11-unix", "/var/lib/docker/volumes"}) {
    EXPECT_NE(of(path, systemDefinition({"*.gz"})), "") << path;
  }
}

TEST(Safety, OfAllCachesOfAHomeOnlyTaggedOrNamedOnesMayGo) {
  EXPECT_THAT(of(".cache", userDefinition({})), HasSubstr("name one below it, or use tagged_only"));
  EXPECT_NE(of(".cache", userDefinition({"*/x"})), "");
  EXPECT_NE(of(".cache", userDefinition({"babl/**", "*/x"})), "");
  EXPECT_EQ(of(".cache", userDefinition({"babl/**"})), "");
  Definition tagged = userDefinition({});
  tagged.rules.tagged_only = true;
  EXPECT_EQ(of(".cache", tagged), "");
}

TEST(Safety, WhatHoldsMoreThanACacheNeedsIncludePatterns) {
  EXPECT_EQ(of(".npm/_cacache", userDefinition({})), "");
  EXPECT_EQ(of("/var/cache/thing", systemDefinition({})), "");
  EXPECT_NE(of(".gradle/caches", userDefinition({})), "");
  EXPECT_NE(of(".gradle/caches", unitDefinition({"*"})), "");
  EXPECT_NE(of("/var/lib/apt/lists", systemDefinition({})), "");
  EXPECT_NE(of("/tmp/build", systemDefinition({})), "");
}

TEST(Safety, OfLogsOnlyCompressedOnesMayGo) {
  for (const char* pattern : {"**/*.log", "syslog", "**/*.1", "**/*.gz*", "*.journal"}) {
    EXPECT_NE(of("/var/log", systemDefinition({"*.gz", pattern})), "") << pattern;
  }
  for (const char* pattern : {"*.gz", "**/*.2.xz", "*.zst", "*.bz2"}) {
    EXPECT_EQ(of("/var/log/app", systemDefinition({pattern})), "") << pattern;
  }
}

TEST(Safety, OfMavensRepositoryOnlyFailedDownloadsMayGo) {
  EXPECT_EQ(of(".m2/repository", userDefinition({"**/*.lastUpdated"})), "");
  EXPECT_NE(of(".m2/repository", userDefinition({"**/*.jar"})), "");
  EXPECT_NE(of(".m2/repository", userDefinition({})), "");
}

TEST(Safety, BuildDirectoriesArePersonalUnitsByName) {
  EXPECT_EQ(of("src", unitDefinition({"*/node_modules"})), "");
  Definition tagged = unitDefinition({"*/target/debug"});
  EXPECT_NE(of("src", tagged), "");
  tagged.rules.tagged_only = true;
  EXPECT_EQ(of("src", tagged), "");
  EXPECT_EQ(of("src/project/target",
               [] {
                 Definition definition = unitDefinition({"debug"});
                 definition.rules.tagged_only = true;
                 return definition;
               }()),
            "");
  EXPECT_NE(of("src", unitDefinition({"*/node_modules", "*"})), "");
  EXPECT_NE(of("src", unitDefinition({"*/build"})), "");
  EXPECT_NE(of("Documents", unitDefinition({"*/node_modules"})), "");
  EXPECT_NE(of(".config", unitDefinition({"*/node_modules"})), "");
  Definition regenerable = unitDefinition({"*/node_modules"});
  regenerable.cache_class = CacheClass::regenerable;
  EXPECT_NE(of("src", regenerable), "");
  Definition files = unitDefinition({"*/node_modules"});
  files.kind = Kind::files;
  EXPECT_NE(of("src", files), "");
}

TEST(Safety, NoRootAndNoPatternCanNameWhatIsKept) {
  for (const char* path : {".cache/rclone", ".cache/rclone/vfs", ".cache/uv", ".cache/huggingface/token",
                           ".cache/pypoetry/virtualenvs", ".cache/JetBrains/Idea2024.1/LocalHistory",
                           ".cache/evolution", ".cache/keyring-ABC", ".var/app/x/cache/rclone"}) {
    EXPECT_NE(of(path, userDefinition()), "") << path;
    EXPECT_NE(of(path, userDefinition({})), "") << path << " as a whole";
  }
  EXPECT_NE(of(".cache", userDefinition({"rclone/**"})), "");
  EXPECT_NE(of(".cache", userDefinition({"pypoetry/virtualenvs/**"})), "");
  EXPECT_NE(of(".config/app/Cache", userDefinition({"Service Worker/**"})), "");
  EXPECT_NE(of(".cache/x", userDefinition({"**/.git/**"})), "");
}

TEST(Safety, WhatIsKeptBelowARootIsExcluded) {
  const auto patterns = protectedBelow(home + "/.cache", userDefinition(), home);
  EXPECT_THAT(patterns, Contains("rclone"));
  EXPECT_THAT(patterns, Contains("pypoetry/virtualenvs"));
  EXPECT_THAT(patterns, Contains("**/.git"));
  EXPECT_THAT(protectedBelow(home + "/.cache/huggingface", userDefinition(), home), Contains("token"));
  EXPECT_THAT(protectedBelow(home + "/.cache/JetBrains/Idea", userDefinition(), home),
              Contains("LocalHistory"));
  EXPECT_THAT(protectedBelow(home + "/.cache/npm", userDefinition(), home), Not(Contains("rclone")));
  EXPECT_THAT(protectedBelow(home + "/.gradle/caches", userDefinition(), home), Contains("journal-1"));
  EXPECT_THAT(protectedBelow("/var/log", systemDefinition(), ""),
              testing::IsSupersetOf({"audit", "journal"}));
  EXPECT_THAT(protectedBelow("/home/bob/.cache", userDefinition(), home), ElementsAre("**"));
}

TEST(Safety, AUnitMayHoldARepository) {
  EXPECT_THAT(protectedBelow(home + "/.cargo/git/checkouts", unitDefinition({"*/*"}), home), IsEmpty());
}

TEST(Safety, TheDesktopsDirectoriesAreForbiddenInEveryLanguage) {
  const std::vector<std::string> personal = {home + "/Asiakirjat", home + "/.cache/pictures-of-mine"};
  Definition definition = unitDefinition({"*/node_modules"});
  EXPECT_EQ(refusal(home + "/code", definition, home, personal), std::nullopt);
  EXPECT_NE(refusal(home + "/Asiakirjat", definition, home, personal), std::nullopt);
  EXPECT_NE(refusal(home + "/Asiakirjat/code", definition, home, personal), std::nullopt);
  definition = userDefinition({"pictures-of-mine/**"});
  EXPECT_NE(refusal(home + "/.cache", definition, home, personal), std::nullopt) << "it holds one of them";
  EXPECT_EQ(refusal(home + "/.cache/thing", definition, home, personal), std::nullopt);
}

/// A home directory that exists.
class Desktop : public testing::Test {
 protected:
  [[nodiscard]] std::vector<std::string> directories() const {
    const FileDescriptor open_home(::open(directory_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return personalDirectories(open_home.get(), "/home/alice");
  }
  const test::TemporaryDirectory directory_;
};

TEST_F(Desktop, SaysWhichDirectoriesItKeepsDocumentsIn) {
  directory_.write(".config/user-dirs.dirs",
                   "# comment\nXDG_DESKTOP_DIR=\"$HOME/Työpöytä\"\nXDG_DOCUMENTS_DIR=\"/data/docs/\"\n"
                   "XDG_MUSIC_DIR=\"$HOME/\"\nnonsense\nXDG_PICTURES_DIR=\"$HOME/Kuvat\"");
  EXPECT_THAT(directories(), ElementsAre("/home/alice/Työpöytä", "/data/docs", "/home/alice/Kuvat"));
}

TEST_F(Desktop, ThatSaysNothingForbidsNothingMore) { EXPECT_THAT(directories(), IsEmpty()); }

TEST_F(Desktop, IsNotFollowedThroughLinks) {
  directory_.write("elsewhere", "XDG_PICTURES_DIR=\"$HOME/Kuvat\"\n");
  directory_.write(".config/x", "");
  ASSERT_EQ(::symlink("../elsewhere", (directory_ / ".config/user-dirs.dirs").c_str()), 0);
  EXPECT_THAT(directories(), IsEmpty());
}

TEST(SafetyAsWritten, ReadsVariablesAndWildcards) {
  const Definition definition = userDefinition();
  EXPECT_EQ(refusalAsWritten("${XDG_CACHE_HOME}/npm", definition), std::nullopt);
  EXPECT_EQ(refusalAsWritten("~/.cache/mozilla/*/cache2", definition), std::nullopt);
  EXPECT_EQ(refusalAsWritten("${XDG_CONFIG_HOME}/*/Code Cache", definition), std::nullopt);
  for (const char* root :
       {"~/*", "~/*/x", "~/.cache/*", "${XDG_CACHE_HOME}/*/x", "${XDG_CONFIG_HOME}/*", "~/.*/cache",
        "${HOME}/.cache/x", "${XDG_DATA_HOME}", "~/.local/share/*", "/home/*/.cache/x", "~alice/.cache"}) {
    EXPECT_NE(refusalAsWritten(root, definition), std::nullopt) << root;
  }
  for (const char* root : {"/var/cache/*", "/var/*/x", "/*/x", "~/.cache/x", "/tmp/*", "/var/cache/../lib"}) {
    EXPECT_NE(refusalAsWritten(root, systemDefinition()), std::nullopt) << root;
  }
}

// Repeated here, so that a name that is lost from the code's list is detected.
const std::vector<std::string> never = {"Documents", "Pictures",       "Desktop",
                                        "Downloads", "Music",          "Videos",
                                        "Public",    "Templates",      "Dokumente",
                                        "Bilder",    ".ssh",           ".gnupg",
                                        ".mozilla",  ".thunderbird",   ".password-store",
                                        "keyrings",  ".git",           ".hg",
                                        ".svn",      ".bzr",           "Mail",
                                        "Maildir",   "Trash",          "containers",
                                        "volumes",   "VirtualBox VMs", "libvirt",
                                        ".rustup",   "Service Worker", "File System",
                                        "IndexedDB", "Local Storage",  "workspaceStorage",
                                        "History",   "LocalHistory"};

std::string anyCase(const std::string& name, test::RandomChoices& random) {
  if (!random.oneIn(3)) return name;
  std::string other = name;
  std::transform(other.begin(), other.end(), other.begin(), [&](unsigned char c) {
    return static_cast<char>(random.oneIn(2) ? std::toupper(c) : std::tolower(c));
  });
  return other;
}

TEST(Safety, NoPathThatHoldsAForbiddenNameIsEverAllowed) {
  const std::vector<std::string> starts = {
      ".cache/app",        ".cache", ".npm/_cacache",       "go/pkg/mod",    ".config/app",
      ".var/app/id/cache", "src",    ".cargo/registry/src", ".gradle/caches"};
  const std::vector<std::string> names = {"Cache",  "a",   "Code Cache", "node_modules",
                                          "target", "x y", "\xFF",       "cache"};
  std::vector<Definition> definitions = {userDefinition(), userDefinition({}),
                                         unitDefinition({"*/node_modules"})};
  definitions.push_back(unitDefinition({"target/debug"}));
  definitions.back().rules.tagged_only = true;
  test::RandomChoices random(test::numberFromEnvironment("KELVANE_SEED", 20261122));
  std::size_t allowed = 0;
  for (int round = 0; round < 50'000; ++round) {
    std::vector<std::string> path = {starts[random.below(starts.size())]};
    for (std::size_t i = random.below(4); i > 0; --i) path.push_back(names[random.below(names.size())]);
    const Definition& definition = definitions[random.below(definitions.size())];
    const auto joined = [&] {
      std::string text;
      for (const std::string& part : path) text += (text.empty() ? "" : "/") + part;
      return text;
    };
    allowed += of(joined(), definition).empty() ? 1 : 0;
    const auto where = path.begin() + static_cast<std::ptrdiff_t>(random.below(path.size() + 1));
    path.insert(where, anyCase(never[random.below(never.size())], random));
    ASSERT_NE(of(joined(), definition), "") << joined();
  }
  EXPECT_GT(allowed, 10'000U) << "otherwise the paths are refused for another reason";
}

}  // namespace
}  // namespace kelvane::caches
