// A user who does everything to lead the deletion out of the cache: directories are exchanged for links to
// what must stay, files for FIFOs and sockets, while they are walked and purged.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <new>

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

  void exchange(const std::string& one, const std::string& other) {
    ::syscall(SYS_renameat2, AT_FDCWD, at(one).c_str(), AT_FDCWD, at(other).c_str(), RENAME_EXCHANGE);
  }

  void step() {
    const std::string some = at(".cache/pip/http/" + std::to_string(choices_.below(40)));
    const std::string lock = at(".cache/pip/lock");
    const std::string rules = at(".config/kelvane/caches.toml");
    switch (choices_.below(14)) {
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
        ::unlink(lock.c_str());
        return static_cast<void>(::mkfifo(lock.c_str(), 0600));
      case 6:
        ::unlink(lock.c_str());
        return static_cast<void>(::symlink(at("Documents/0").c_str(), lock.c_str()));
      case 7:
        ::unlink(some.c_str());
        return static_cast<void>(::symlink(at("Documents/1").c_str(), some.c_str()));
      case 8:
        ::unlink(some.c_str());
        return static_cast<void>(::link(at("Documents/2").c_str(), some.c_str()));
      case 9:
        return bindSocket(some);
      case 10:
        return deepen();
      case 11:
        return replaceRules(rules);
      default:
        return writeFile(some);
    }
  }

  static void writeFile(const std::string& path) {
    const int file =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_EXCL | O_CLOEXEC, 0600);
    if (file < 0) return;
    [[maybe_unused]] const ssize_t written = ::write(file, "cached", 6);
    ::close(file);
  }

  static void bindSocket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return;
    path.copy(address.sun_path, path.size());
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::close(socket);
  }

  void deepen() const {
    std::string deep = at(".cache/pip/http/deep");
    for (int level = 0; level < 60; ++level) {
      ::mkdir(deep.c_str(), 0700);
      writeFile(deep + "/file");
      deep += "/d";
    }
  }

  void replaceRules(const std::string& rules) {
    ::unlink(rules.c_str());
    const std::size_t kind = choices_.below(12);
    if (kind == 0) ::mkfifo(rules.c_str(), 0600);
    if (kind == 1) [[maybe_unused]]
      const int linked = ::symlink("/dev/zero", rules.c_str());
    if (kind == 2) bindSocket(rules);
    if (kind == 3) writeFile(rules);  // no valid rules
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
    // Part of what must stay is the attacker's own, so that no right of anybody protects it.
    fillPrecious(volume() + "/etc");
    fillPrecious(home(alice) + "/Documents");
    fillPrecious(home(bob) + "/.config");
    for (const char* const directory : {".cache/pip/http", ".config/kelvane", "links"}) {
      fs::create_directories(home(alice) + "/" + directory);
    }
    link("links/pip", home(alice) + "/Documents/pip");
    link("links/http", home(alice) + "/Documents/pip/http");
    link("links/cache", home(alice) + "/Documents");
    link("links/elsewhere", volume() + "/etc/pip");
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
  static Definition attacked() {
    Definition definition = pip();
    definition.roots = {"${XDG_CACHE_HOME}/pip", "~/.cache/*/http"};
    definition.in_use = {{InUse::Kind::record, "lock"}, {InUse::Kind::pid_link, "~/.cache/pip/running"}};
    definition.rules.ages.fill(std::chrono::seconds(hour));
    return definition;
  }
};

TEST_F(HostileHome, LosesNothingOutsideItsCacheToPurges) {
  const std::uint64_t steps = numberFromEnvironment("KELVANE_ATTACK_STEPS", 100'000);
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
  EXPECT_EQ(whatMustStay(), before);
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

TEST_F(HostileHome, OfAMillionLevelsOrNamesCostsItsOwnFiguresOnly) {
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
