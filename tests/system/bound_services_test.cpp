// Services and the volumes of their data: a real daemon over three real volumes, of which one is filled, and
// services of every kind that have data on all of them.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <filesystem>
#include <fstream>
#include <map>

#include "common/keys.h"
#include "tests/system/daemon.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t mebibyte = 1 << 20;
constexpr unsigned files = 4;  // in each cache, a mebibyte each

/// On each of the volumes "a", "b" and "c": a cache of the C++ example, one of the Python example, and one of
/// a handler that serves all three.
class BoundServices : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(daemon_.isReady()) << daemon_.process().output();
    std::vector<std::string> by_hand = {built("handler_program"), "com.example.hand", daemon_.socket()};
    for (const auto& [name, volume] : volumes_) {
      const std::string id = "com.example." + name;
      start({built("cache_service"), "--verbose", "--id", id + ".cpp"}, volume.fill("cpp", files, mebibyte));
      start({"/usr/bin/python3", KELVANE_SOURCE_FOLDER "/examples/python_service.py", "--id", id + ".python"},
            volume.fill("python", files, mebibyte));
      by_hand.push_back(volume.fill("hand", files, mebibyte));
    }
    services_.push_back(std::make_unique<Process>(by_hand));
    for (const auto& service : services_) ASSERT_TRUE(service->printed("registered")) << service->output();
  }
  void start(std::vector<std::string> command, const std::string& directory) {
    const std::vector<std::string> more = {"--folder",   directory, "--lifetime", "0",
                                           "--youngest", "0",       "--daemon",   daemon_.socket()};
    command.insert(command.end(), more.begin(), more.end());
    services_.push_back(std::make_unique<Process>(command));
  }
  [[nodiscard]] std::string pathOf(const std::string& volume) const { return volumes_.at(volume).path(); }
  /// In one of the caches of a volume.
  [[nodiscard]] std::ptrdiff_t filesIn(const std::string& volume, const std::string& cache) const {
    return std::distance(fs::directory_iterator(pathOf(volume) + "/" + cache), {});
  }
  void expectUntouched(const std::string& volume) const {
    for (const char* cache : {"cpp", "python", "hand"})
      EXPECT_EQ(filesIn(volume, cache), files) << volume << cache;
  }
  [[nodiscard]] std::uint64_t purged(const std::string& path, std::uint64_t bytes) const {
    const auto result =
        Client(daemon_).purge({{KELVANE_VOLUME, path}, {KELVANE_AMOUNT, bytes}, {KELVANE_URGENCY, 4}});
    return result ? (*result)[KELVANE_AMOUNT].unsignedLongLongValue() : 0;
  }
  [[nodiscard]] Dictionary purgeable(const std::string& path) const {
    return Client(daemon_)
        .purgeableSpace({{KELVANE_VOLUME, path}, {KELVANE_URGENCY, 4}})
        .value_or(Dictionary());
  }

  const std::map<std::string, Volume> volumes_ = [] {
    std::map<std::string, Volume> volumes;
    for (const char* name : {"a", "b", "c"}) volumes.try_emplace(name, 32);
    return volumes;
  }();
  Daemon daemon_{built("kelvaned"), {"KELVANE_LOW_SPACE=10%"}};
  std::vector<std::unique_ptr<Process>> services_;
};

TEST_F(BoundServices, GiveNothingOnTheVolumesThatWereNotFilled) {
  std::ofstream(pathOf("a") + "/film") << std::string(18 * mebibyte, 'x');
  ASSERT_TRUE(daemon_.logged("com.example.a.python service purged: 4194304")) << daemon_.process().output();
  static_cast<void>(purged(pathOf("a"), 1));  // begins when the daemon's own purge is over
  for (const char* cache : {"cpp", "python", "hand"}) EXPECT_EQ(filesIn("a", cache), 0) << cache;
  expectUntouched("b");
  expectUntouched("c");
}

TEST_F(BoundServices, AreListedUnderTheirOwnVolumeOnly) {
  const std::uint64_t all = files * mebibyte;
  for (const auto& [name, volume] : volumes_) {
    const Dictionary figures = purgeable(volume.path());
    for (const char* other : {"a", "b", "c"}) {
      for (const char* kind : {"cpp", "python"}) {
        const std::string id = std::string("com.example.") + other + "." + kind;
        EXPECT_EQ(figures[id].unsignedLongLongValue(), other == name ? all : 0) << id << " on " << name;
      }
    }
    EXPECT_EQ(figures["com.example.hand"].unsignedLongLongValue(), all);
    EXPECT_EQ(figures[KELVANE_TOTAL_AVAILABLE].unsignedLongLongValue(), 3 * all);
  }
}

TEST_F(BoundServices, GiveWhatIsOnTheVolumeThatIsAskedFor) {
  EXPECT_EQ(purged(pathOf("b"), 12 * mebibyte), 12 * mebibyte);
  for (const char* cache : {"cpp", "python", "hand"}) EXPECT_EQ(filesIn("b", cache), 0) << cache;
  expectUntouched("a");
  expectUntouched("c");
}

}  // namespace
}  // namespace kelvane::tests
