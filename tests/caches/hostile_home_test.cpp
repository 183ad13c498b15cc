// A hostile user tries to lead the deletion out of the cache: during walks and purges, directories are
// exchanged for links to what must stay, and files for FIFOs and sockets.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <linux/openat2.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <new>
#include <utility>

#include "platform/foundation/file_descriptor.h"
#include "tests/caches/machine.h"
#include "tests/support/random_choices.h"

namespace kelvane::caches::tests {
namespace {

namespace fs = std::filesystem;
using kelvane::test::numberFromEnvironment;
using kelvane::test::RandomChoices;
using kelvane::tests::PrivateMount;

/// Works in the user's home until it is destroyed.
class Attacker {
 public:
  Attacker(uid_t user, std::string home, std::uint64_t seed) : home_(std::move(home)), choices_(seed) {
    void* const shared =
        ::mmap(nullptr, sizeof(Steps), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    steps_ = new (shared) Steps(0);
    id_ = ::fork();
    if (id_ == 0) attack(user);
  }
  ~Attacker() {
    ::kill(id_, SIGKILL);
    ::waitpid(id_, nullptr, 0);
    ::munmap(steps_, sizeof(Steps));
  }
  Attacker(const Attacker&) = delete;
  Attacker& operator=(const Attacker&) = delete;

  [[nodiscard]] std::uint64_t steps() const { return *steps_; }

 private:
  using Steps = std::atomic<std::uint64_t>;
  static constexpr useconds_t as_long_as_a_purge = 10'000;

  [[noreturn]] void attack(uid_t user) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::setresgid(user, user, user) != 0 || ::setresuid(user, user, user) != 0) ::_exit(1);
    ::umask(022);
    while (true) {
      step();
      ++*steps_;
    }
  }

  [[nodiscard]] std::string at(const std::string& path) const { return home_ + "/" + path; }

  /// Follows no link, so that the attacker does not change what must stay.
  [[nodiscard]] FileDescriptor directory(const std::string& path) const {
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS;
    return FileDescriptor(
        static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, at(path).c_str(), &how, sizeof how)));
  }

  /// Exchanges a name in the cache with one in ~/links.
  void exchange(const fs::path& name, const fs::path& link) {
    const FileDescriptor parent = directory(name.parent_path());
    const FileDescriptor links = directory(link.parent_path());
    ::syscall(SYS_renameat2, parent.get(), name.filename().c_str(), links.get(), link.filename().c_str(),
              RENAME_EXCHANGE);
    if (choices_.oneIn(16)) ::usleep(as_long_as_a_purge);
  }

  void step() {
    switch (choices_.below(20)) {
      case 0:
        return exchange(".cache/pip", "links/pip");
      case 1:
        return exchange(".cache/pip/http", "links/http");
      case 2:
        return exchange(".cache", "links/cache");
      case 3:
        return exchange(".cache/pip/http/deep", "links/http");
      case 4:
        return exchange(".cache/pip", "links/elsewhere");
      case 5:
        return undo();
      case 6:
        return replaceLock();
      case 7:
        return replaceRules();
      case 8:
        return deepen();
      default:
        return replaceSome();
    }
  }

  /// All as it was, for as long as a purge may take.
  void undo() {
    for (const auto& [name, link] :
         {std::pair(".cache", "links/cache"), std::pair(".cache/pip", "links/pip"),
          std::pair(".cache/pip", "links/elsewhere"), std::pair(".cache/pip/http", "links/http")}) {
      std::error_code gone;
      if (fs::is_symlink(at(name), gone)) exchange(name, link);
    }
    ::unlinkat(directory(".cache/pip").get(), "lock", 0);
    ::unlink(at(".config/kelvane/caches.toml").c_str());
    if (choices_.oneIn(4)) ::usleep(as_long_as_a_purge);
  }

  void replaceLock() {
    const FileDescriptor pip = directory(".cache/pip");
    if (!pip) return;
    ::unlinkat(pip.get(), "lock", 0);
    if (choices_.oneIn(3)) ::mkfifoat(pip.get(), "lock", 0600);
    if (choices_.oneIn(3)) [[maybe_unused]]
      const int made = ::symlinkat(at("Documents/0").c_str(), pip.get(), "lock");
  }

  void replaceSome() {
    const FileDescriptor http = directory(".cache/pip/http");
    if (!http) return;
    const std::string name = std::to_string(choices_.below(40));
    ::unlinkat(http.get(), name.c_str(), 0);
    const std::size_t kind = choices_.below(12);
    if (kind == 0) {
      [[maybe_unused]] const int made = ::symlinkat(at("Documents/1").c_str(), http.get(), name.c_str());
    } else if (kind == 1) {
      ::linkat(AT_FDCWD, at("Documents/2").c_str(), http.get(), name.c_str(), 0);
    } else if (kind == 2) {
      ::mknodat(http.get(), name.c_str(), S_IFSOCK | 0600, 0);
    } else if (kind == 3) {
      ::mkfifoat(http.get(), name.c_str(), 0600);
    } else {
      writeFile(http.get(), name.c_str());
    }
  }

  static void writeFile(int directory, const char* name) {
    const FileDescriptor file(::openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    [[maybe_unused]] const ssize_t written = ::write(file.get(), "cached", 6);
  }

  void deepen() const {
    FileDescriptor deep = directory(".cache/pip/http");
    ::mkdirat(deep.get(), "deep", 0700);
    const char* name = "deep";
    for (int level = 0; level < 20 && deep; ++level) {
      ::mkdirat(deep.get(), name, 0700);
      deep = FileDescriptor(::openat(deep.get(), name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      name = "d";
      writeFile(deep.get(), "file");
    }
  }

  void replaceRules() {
    const std::string rules = at(".config/kelvane/caches.toml");
    ::unlink(rules.c_str());
    const std::size_t kind = choices_.below(12);
    if (kind == 0) ::mkfifo(rules.c_str(), 0600);
    if (kind == 1) [[maybe_unused]]
      const int made = ::symlink("/dev/zero", rules.c_str());
    if (kind == 2) ::mknod(rules.c_str(), S_IFSOCK | 0600, 0);
    if (kind == 3) writeFile(AT_FDCWD, rules.c_str());
  }

  const std::string home_;
  RandomChoices choices_;
  Steps* steps_ = nullptr;
  pid_t id_ = 0;
};

class HostileHome : public Machine {
 protected:
  HostileHome() {
    addUser(alice);
    addUser(bob);
    // The attacker owns part of what must stay, so that no permission protects it.
    fillPrecious(volume() + "/etc");
    fillPrecious(home(alice) + "/Documents");
    fillPrecious(home(bob) + "/.config");
    for (const char* const directory : {".cache/pip/http", ".config/kelvane", "links"}) {
      fs::create_directories(home(alice) + "/" + directory);
    }
    // As they are right where they are exchanged to.
    link("links/pip", "../Documents/pip");
    link("links/http", "../../Documents/pip/http");
    link("links/cache", "Documents");
    link("links/elsewhere", "../../../etc/pip");
    giveTo(alice, home(alice));
    giveTo(bob, home(bob));
    giveTo(alice, volume() + "/etc/pip");
  }

  static void fillPrecious(const std::string& path) {
    for (int i = 0; i < 40; ++i) {
      for (const char* const below : {"/", "/pip/", "/pip/http/", "/pip/http/deep/d/"}) {
        write(path + below + std::to_string(i), "precious");
      }
    }
  }
  void link(const std::string& name, const std::string& target) const {
    fs::create_directory_symlink(target, home(alice) + "/" + name);
  }
  [[nodiscard]] std::map<std::string, std::string> whatMustStay() const {
    std::map<std::string, std::string> all = describeTree(volume() + "/etc");
    all.merge(describeTree(home(alice) + "/Documents"));
    all.merge(describeTree(home(bob)));
    return all;
  }
  [[nodiscard]] std::string changesSince(const std::map<std::string, std::string>& before) const {
    const std::map<std::string, std::string> after = whatMustStay();
    std::string changes;
    for (const auto& [path, description] : before) {
      const auto now = after.find(path);
      if (now == after.end()) changes += path + " is gone\n";
      if (now != after.end() && now->second != description)
        changes += path + " was " + description + ", is " + now->second + "\n";
    }
    return changes;
  }
  static Definition attacked() {
    Definition definition = pip();
    definition.roots = {"${XDG_CACHE_HOME}/pip", "~/.cache/*/http"};
    definition.in_use = {{InUse::Kind::record, "lock"}, {InUse::Kind::pid_link, "running"}};
    definition.rules.ages.fill(std::chrono::seconds(hour));
    return definition;
  }
};

TEST_F(HostileHome, LosesNothingOutsideItsCacheToPurges) {
  const std::uint64_t steps = numberFromEnvironment("KELVANE_ATTACK_STEPS", 10'000);
  const std::uint64_t seed = numberFromEnvironment("KELVANE_ATTACK_SEED", 1);
  fs::create_directories(home(alice) + "/.cache/pip/bound");
  const PrivateMount bound(nullptr, volume() + "/etc", home(alice) + "/.cache/pip/bound", MS_BIND);
  start({attacked()});
  const auto before = whatMustStay();
  std::uint64_t freed = 0;
  std::uint64_t purges = 0;
  {
    const Attacker attacker(alice, home(alice), seed);
    const auto given_up = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while ((attacker.steps() < steps || purges < 100) && std::chrono::steady_clock::now() < given_up) {
      freed += workers_->purge("pip", {}, 4, UINT64_MAX, limits(std::chrono::seconds(5))).freed();
      ++purges;
    }
    EXPECT_GE(attacker.steps(), steps);
  }
  EXPECT_GE(purges, 100U);
  EXPECT_GT(freed, 0U) << "something was deleted while it was attacked";
  EXPECT_TRUE(whatMustStay() == before) << changesSince(before);
  RecordProperty("purges", std::to_string(purges));
  RecordProperty("freed", std::to_string(freed));
}

TEST_F(HostileHome, DoesNotLearnOrHoldUpWhatOthersHave) {
  addFile(bob, ".cache/pip/old", 4096, 50 * day);
  start({attacked()});
  const Attacker attacker(alice, home(alice), 2);
  for (int i = 0; i < 20; ++i) {
    const HolderReport report = workers_->survey("pip", {}, limits(std::chrono::seconds(5)));
    ASSERT_EQ(of(bob, report).size(), 1U);
    EXPECT_EQ(of(bob, report).front().survey.at_urgency[3].bytes, 4096U);
  }
}

TEST_F(HostileHome, DeeperThanAPathCanBeLongHurtsItselfOnly) {
  // Deeper than a path can be long.
  const int start_here = ::open(home(alice).c_str(), O_PATH);
  int at = ::openat(start_here, ".cache/pip", O_PATH);
  for (int level = 0; level < 6000; ++level) {
    ::mkdirat(at, "d", 0700);
    ::fchownat(at, "d", alice, alice, 0);
    const int next = ::openat(at, "d", O_PATH | O_NOFOLLOW);
    ::close(at);
    at = next;
  }
  ::close(at);
  ::close(start_here);
  addFile(bob, ".cache/pip/old", 4096, 50 * day);
  start({attacked()});
  const HolderReport report = workers_->purge("pip", {}, 4, UINT64_MAX, limits());
  EXPECT_EQ(of(bob, report).front().purge.freed, 4096U);
}

TEST_F(HostileHome, WithFilesThatBlockAnswersAllTheSame) {
  fs::remove_all(home(alice) + "/.config/kelvane");
  addFile(alice, ".cache/pip/http/old", 4096, 50 * day);
  ASSERT_EQ(::mkfifo((home(alice) + "/.cache/pip/lock").c_str(), 0666), 0);
  start({attacked()});
  HolderReport report = survey();
  EXPECT_TRUE(report.complete);
  EXPECT_EQ(of(alice, report).front().survey.at_urgency[3].bytes, 0U) << "what cannot be tested is held";
  fs::remove(home(alice) + "/.cache/pip/lock");
  EXPECT_EQ(survey().atUrgency(4).bytes, 4096U);
  fs::create_directories(home(alice) + "/.config/kelvane");
  ASSERT_EQ(::mkfifo((home(alice) + "/.config/kelvane/caches.toml").c_str(), 0666), 0);
  giveTo(alice, home(alice) + "/.config");
  report = survey();
  EXPECT_NE(reasonOf(alice, report), "");
  EXPECT_EQ(report.atUrgency(4).bytes, 0U);
}

}  // namespace
}  // namespace kelvane::caches::tests
