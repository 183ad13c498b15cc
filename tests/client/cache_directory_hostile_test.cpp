// An attacker changes the cache while it is purged: at every system call, and at random. A tree beside it, of
// the same user and age, must stay unchanged.
//
//   KELVANE_ATTACKS=1000000 cache_directory_hostile_test --gtest_filter='*Random*'

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <fstream>
#include <map>
#include <thread>

#include "client/folder_walk.h"
#include "platform/foundation/file_descriptor.h"
#include "tests/client/cache_tree.h"
#include "tests/support/private_mounts.h"
#include "tests/support/random_choices.h"
#include "tests/support/stepped_process.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;
using client::CachePurge;
using client::CacheRules;

const bool private_mounts = enterPrivateMounts();
const bool a_year_ahead = advanceAYear();

/// A cache, and beside it a tree with the same content.
class AttackedCache {
 public:
  explicit AttackedCache(bool units) {
    if (units) {
      rules_.unit = client::CacheUnit::directory;
      rules_.include = {"*/*"};
    }
    for (const char* name : {"sub/file", "sub/unit/file", "sub/unit/deeper/file", "linked"})
      tree_.directory().write(std::string("bystander/") + name, "kept");
    bystander_ = sumOf(bystander());
  }

  void fill() const {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(cache())) fs::remove_all(entry, ignored);
    fs::remove_all(tree_.outside("aside"), ignored);
    for (const char* name : {"sub/file", "sub/unit/file", "sub/unit/deeper/file", "file"}) {
      tree_.directory().write(std::string("cache/") + name, "goes");
    }
  }
  [[nodiscard]] CachePurge purge() const { return tree_.purge(rules_); }
  [[nodiscard]] std::unique_ptr<client::CacheDirectory> open() const { return tree_.open(rules_); }
  [[nodiscard]] client::CacheLimits limits() const { return tree_.limits(); }
  [[nodiscard]] std::string cache(const std::string& name = "") const { return tree_.path(name); }
  [[nodiscard]] std::string bystander(const std::string& name = "") const {
    return tree_.outside("bystander/" + name);
  }
  [[nodiscard]] std::string aside() const { return tree_.outside("aside"); }
  [[nodiscard]] bool bystanderIsWhole() const { return sumOf(bystander()) == bystander_; }

 private:
  static std::map<std::string, std::string> sumOf(const std::string& tree) {
    std::map<std::string, std::string> sum;
    for (const auto& entry : fs::recursive_directory_iterator(tree)) {
      std::ifstream file(entry.path());
      sum[entry.path()] = entry.is_directory() ? "" : std::string(std::istreambuf_iterator<char>(file), {});
    }
    return sum;
  }

  CacheTree tree_;
  CacheRules rules_ = rulesOfDays({0, 0, 0, 0});
  std::map<std::string, std::string> bystander_;
};

struct Attack {
  const char* name;
  void (*strike)(const AttackedCache&);
};

void swapForLink(const AttackedCache& cache, const std::string& name) {
  ::rename(cache.cache(name).c_str(), cache.aside().c_str());
  ::symlink(cache.bystander(name).c_str(), cache.cache(name).c_str());
}

void swapForLinkedFile(const AttackedCache& cache, const std::string& name) {
  ::unlink(cache.cache(name).c_str());
  ::link(cache.bystander("linked").c_str(), cache.cache(name).c_str());
}

void mountOver(const AttackedCache& cache, const std::string& name) {
  ::mount(cache.bystander(name).c_str(), cache.cache(name).c_str(), nullptr, MS_BIND, nullptr);
}

const std::vector<Attack> attacks = {
    {"DirectoryForLink", [](const AttackedCache& it) { swapForLink(it, "sub"); }},
    {"UnitForLink", [](const AttackedCache& it) { swapForLink(it, "sub/unit"); }},
    {"DirectoryWithinForLink", [](const AttackedCache& it) { swapForLink(it, "sub/unit/deeper"); }},
    {"FileForLink", [](const AttackedCache& it) { swapForLink(it, "sub/unit/file"); }},
    {"FileForBystandersName", [](const AttackedCache& it) { swapForLinkedFile(it, "sub/unit/file"); }},
    {"MountOverDirectory", [](const AttackedCache& it) { mountOver(it, "sub"); }},
    {"MountOverUnit", [](const AttackedCache& it) { mountOver(it, "sub/unit"); }},
    {"MountWithinUnit", [](const AttackedCache& it) { mountOver(it, "sub/unit/deeper"); }},
    {"MovedOut",
     [](const AttackedCache& it) { ::rename(it.cache("sub/unit/deeper").c_str(), it.aside().c_str()); }},
};

class ACacheUnderAttack : public testing::TestWithParam<std::tuple<bool, Attack>> {};
INSTANTIATE_TEST_SUITE_P(, ACacheUnderAttack, testing::Combine(testing::Bool(), testing::ValuesIn(attacks)),
                         [](const auto& of) {
                           return std::string(std::get<1>(of.param).name) +
                                  (std::get<0>(of.param) ? "OfUnits" : "OfFiles");
                         });

TEST_P(ACacheUnderAttack, IsNotLeftWhicheverSystemCallItComesAt) {
  ASSERT_TRUE(private_mounts) << "this machine allows no mount namespace of one's own";
  const AttackedCache cache(std::get<0>(GetParam()));
  const auto directory = cache.open();
  const auto purge = [&] { static_cast<void>(directory->purge(4, all_ages, everything, cache.limits())); };
  bool struck = true;
  int at = 0;
  while (struck) {
    cache.fill();
    struck = false;
    ++at;
    SteppedProcess::run(purge, [&](int stop) {
      struck = stop == at;
      if (struck) std::get<1>(GetParam()).strike(cache);
      return !struck;
    });
    for (const char* name : {"sub/unit/deeper", "sub/unit", "sub"})
      ::umount2(cache.cache(name).c_str(), MNT_DETACH);
    ASSERT_TRUE(cache.bystanderIsWhole()) << "struck at stop " << at;
  }
  EXPECT_GT(at, 30);
}

class ACacheUnderRandomAttack : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(, ACacheUnderRandomAttack, testing::Bool(),
                         [](const auto& units) { return units.param ? "OfUnits" : "OfFiles"; });

/// Follows no link in the cache, so that only the purge could damage the tree beside it.
class Attacker {
 public:
  explicit Attacker(const AttackedCache& cache) : cache_(cache) {}

  void step(std::uint64_t number) {
    const std::string& name = names_[number % names_.size()];
    const std::size_t slash = name.rfind('/');
    const FileDescriptor in =
        client::openBelow(root_.get(), slash == std::string::npos ? "." : name.substr(0, slash).c_str());
    if (in) strike(number / names_.size() % 4, name, in.get(), name.substr(slash + 1));
  }

 private:
  void strike(std::uint64_t way, const std::string& name, int in, const std::string& last) const {
    const std::string aside = cache_.aside();
    if (way == 0) {
      ::unlink(aside.c_str());
      ::symlink(cache_.bystander(name).c_str(), aside.c_str());
    }
    if (way <= 1) {
      ::syscall(SYS_renameat2, AT_FDCWD, aside.c_str(), in, last.c_str(), RENAME_EXCHANGE);
    } else if (way == 2) {
      ::linkat(AT_FDCWD, cache_.bystander("linked").c_str(), in, (last + "x").c_str(), 0);
    } else {
      ::mkdirat(in, last.c_str(), 0700);
      const FileDescriptor made = client::openBelow(in, last.c_str());
      const FileDescriptor file(
          ::openat(made.get(), "file", O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    }
  }

  const AttackedCache& cache_;
  const FileDescriptor root_{::open(cache_.cache().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  const std::vector<std::string> names_ = {"sub", "sub/unit", "sub/unit/deeper", "sub/unit/file",
                                           "sub/unit/deeper/file"};
};

TEST_P(ACacheUnderRandomAttack, IsNotLeftInHalfOfAHundredThousandSteps) {
  const std::uint64_t steps = test::numberFromEnvironment("KELVANE_ATTACKS", 100'000) / 2;
  const AttackedCache cache(GetParam());
  cache.fill();
  // A slow machine purges less often meanwhile, so the attack lasts until there was enough to attack.
  constexpr std::uint64_t enough = 100;
  const std::uint64_t most_steps = 20 * steps;
  std::atomic<bool> over = false;
  std::atomic<std::uint64_t> purges = 0;
  std::atomic<std::uint64_t> files = 0;
  std::thread attacking([&] {
    Attacker attacker(cache);
    for (std::uint64_t step = 0; step < most_steps; ++step) {
      if (step >= steps && purges > enough && files > enough) break;
      attacker.step(step);
    }
    over = true;
  });
  for (; !over; ++purges) files += cache.purge().files;
  attacking.join();
  EXPECT_GT(purges, enough);
  EXPECT_GT(files, enough);
  EXPECT_TRUE(cache.bystanderIsWhole());
}

}  // namespace
}  // namespace kelvane::tests
