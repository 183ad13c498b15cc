// The ready-made service for cache directories, on real volumes in a private mount namespace.

#include "kelvane/directory_service.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "client/cache_clock.h"
#include "tests/client/daemon_process.h"
#include "tests/client/events.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/private_mounts.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;
using client::CachePurge;
using client::DirectoryService;
using client::DirectoryServiceOptions;
using client::Request;
using std::chrono::hours;
using testing::HasSubstr;

const bool private_mounts = enterPrivateMounts();

constexpr const char* ID = "com.example.one";
constexpr std::int64_t hour = 3600;
constexpr std::uint64_t page = 4096;

class ADirectoryService : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(private_mounts) << "this machine allows no mount namespace of one's own";
    for (const std::string& volume : {a_, b_}) {
      fs::create_directory(volume);
      volumes_.push_back(std::make_unique<PrivateMount>("tmpfs", "none", volume, 0, "size=1m"));
      for (const char* name : {"/one", "/two"}) fs::create_directory(volume + name);
    }
    options_.service.id = ID;
    options_.service.daemon_socket = directory_ / "kelvane.sock";
    options_.service.directories = {a_ + "/one", a_ + "/two", b_ + "/one"};
    options_.rules.ages = {std::nullopt, hours(40), hours(20), hours(2)};
    options_.state_changed = [this](client::ServiceState state, const std::string& /*reason*/) {
      if (state == client::ServiceState::registered) events_.note("registered");
    };
  }
  void start() {
    auto started = DirectoryService::start(options_);
    if (!started) throw std::runtime_error(started.error().reason);
    service_ = *std::move(started);
    events_.await("registered");
  }
  [[nodiscard]] std::string whyNot() const {
    const auto service = DirectoryService::start(options_);
    if (!service) {
      EXPECT_EQ(service.error().kind, client::Failure::badRequest);
    }
    return service ? "it started" : service.error().reason;
  }
  /// A file of one page that will be `hours` old once `pass` has moved the clock by `oldest`. Only the time
  /// of the last access can be in the future.
  static void add(const std::string& path, std::int64_t age) {
    writeNew(path);
    const std::int64_t accessed = client::cacheTime() + (oldest - age) * hour;
    const timespec times[] = {{accessed, 0}, {0, UTIME_OMIT}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }
  void pass() {
    client::advanceCacheTime(oldest * hour);
    passed_ += oldest * hour;
  }
  void TearDown() override { client::advanceCacheTime(-passed_); }
  std::string ask(const std::string& verb, int urgency, const std::string& volume, std::uint64_t amount = 0) {
    return daemon_.ask(verb + " " + ID + " " + std::to_string(urgency) + " " + std::to_string(amount) +
                       " KELVANE_VOLUME=" + volume);
  }
  static std::string pages(std::uint64_t count) { return std::to_string(count * page); }

  static constexpr std::int64_t oldest = 100;  // hours

  const test::TemporaryDirectory directory_;
  const std::string home_ = fs::canonical(directory_.path());
  const std::string a_ = home_ + "/a";
  const std::string b_ = home_ + "/b";
  std::vector<std::unique_ptr<PrivateMount>> volumes_;
  DaemonProcess daemon_{directory_ / "kelvane.sock"};
  Events events_;
  DirectoryServiceOptions options_;
  std::unique_ptr<DirectoryService> service_;
  std::int64_t passed_ = 0;

 private:
  static void writeNew(const std::string& path) { std::ofstream(path) << std::string(page, 'x'); }
};

TEST_F(ADirectoryService, CountsWhatIsOldEnoughOnTheVolumeAndNothingElse) {
  add(a_ + "/one/old", 50);
  add(a_ + "/two/older", 90);
  add(a_ + "/one/young", 10);
  add(a_ + "/one/new", 1);
  add(b_ + "/one/old", 50);
  add(a_ + "/beside", 50);
  pass();
  start();
  EXPECT_EQ(ask("purgeable", 1, a_), "0");
  EXPECT_EQ(ask("purgeable", 2, a_), pages(2));
  EXPECT_EQ(ask("purgeable", 3, a_), pages(2));
  EXPECT_EQ(ask("purgeable", 4, a_), pages(3));
  EXPECT_EQ(ask("purgeable", 4, b_), pages(1));
  EXPECT_EQ(ask("purgeable", 4, "/"), "0");
}

TEST_F(ADirectoryService, PurgesTheOldestOfAllItsDirectoriesOnTheVolumeFirst) {
  add(a_ + "/one/old", 50);
  add(a_ + "/two/older", 90);
  add(a_ + "/one/oldest", 99);
  add(b_ + "/one/oldest", 99);
  pass();
  start();
  EXPECT_EQ(ask("purge", 4, a_, 2 * page), pages(2));
  EXPECT_TRUE(fs::exists(a_ + "/one/old"));
  EXPECT_FALSE(fs::exists(a_ + "/two/older"));
  EXPECT_FALSE(fs::exists(a_ + "/one/oldest"));
  EXPECT_TRUE(fs::exists(b_ + "/one/oldest"));
}

TEST_F(ADirectoryService, PurgesNothingThatIsTooYoungForTheUrgency) {
  add(a_ + "/one/old", 50);
  add(a_ + "/one/young", 10);
  add(a_ + "/one/new", 1);
  pass();
  start();
  EXPECT_EQ(ask("purge", 1, a_, 10 * page), "0");
  EXPECT_EQ(ask("purge", 3, a_, 10 * page), pages(1));
  EXPECT_TRUE(fs::exists(a_ + "/one/young"));
  EXPECT_EQ(ask("purge", 4, a_, 10 * page), pages(1));
  EXPECT_TRUE(fs::exists(a_ + "/one/new"));
}

TEST_F(ADirectoryService, ReportsWhatEachPurgeDid) {
  std::mutex mutex;  // guards the two below
  std::vector<CachePurge> told;
  std::vector<std::string> volumes;
  options_.purged = [&](const Request& request, const CachePurge& purge) {
    const std::scoped_lock lock(mutex);
    told.push_back(purge);
    volumes.push_back(request.volume);
  };
  add(a_ + "/one/old", 50);
  add(a_ + "/two/old", 50);
  add(a_ + "/two/new", 1);
  pass();
  start();
  EXPECT_EQ(ask("purge", 4, a_, page), pages(1));
  EXPECT_EQ(ask("purge", 4, a_, 10 * page), pages(1));
  EXPECT_EQ(ask("purge", 4, "/", 10 * page), "0");
  const std::scoped_lock lock(mutex);
  ASSERT_EQ(told.size(), 2U) << "the third was about a volume without its directories";
  EXPECT_EQ(volumes, std::vector({a_, a_}));
  EXPECT_EQ(told[0].end, CachePurge::End::amountFreed);
  EXPECT_EQ(told[1].end, CachePurge::End::nothingLeft);
  EXPECT_EQ(told[1].freed, page);
  EXPECT_EQ(told[1].files, 1U);
}

TEST_F(ADirectoryService, AnswersWithWhatWasFreedWhenItsCallbackThrows) {
  options_.purged = [](const Request& /*request*/, const CachePurge& /*purge*/) {
    throw std::runtime_error("a log that cannot be written");
  };
  add(a_ + "/one/old", 50);
  pass();
  start();
  EXPECT_EQ(ask("purge", 4, a_, page), pages(1));
  EXPECT_EQ(ask("purgeable", 4, a_), "0");
}

TEST_F(ADirectoryService, LeavesWhatIsThereWhenALinkTookThePlaceOfItsDirectory) {
  add(a_ + "/other", 50);
  fs::create_directory(a_ + "/precious");
  add(a_ + "/precious/old", 50);
  pass();
  start();
  fs::remove(a_ + "/one");
  fs::create_directory_symlink(a_ + "/precious", a_ + "/one");
  EXPECT_EQ(ask("purgeable", 4, a_), "0");
  EXPECT_EQ(ask("purge", 4, a_, 10 * page), "0");
  EXPECT_TRUE(fs::exists(a_ + "/precious/old"));
}

/// The attacker may write in the parent directory, and exchanges the directory with a link into another
/// volume.
TEST_F(ADirectoryService, TouchesNoOtherVolumeHoweverOftenItsDirectoryIsSwapped) {
  add(b_ + "/two/precious", 90);
  for (int i = 0; i < 200; ++i) add(a_ + "/one/" + std::to_string(i), 50);
  fs::create_directory_symlink(b_ + "/two", a_ + "/link");
  pass();
  options_.service.directories = {a_ + "/one"};
  start();
  std::atomic<bool> done = false;
  std::atomic<std::size_t> swaps = 0;
  std::thread attacker([&] {
    while (!done) {
      const std::string one = a_ + "/one";
      EXPECT_EQ(::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, (a_ + "/link").c_str(), RENAME_EXCHANGE), 0);
      ++swaps;
    }
  });
  std::size_t purged = 0;
  for (int i = 0; i < 200; ++i) {
    for (const std::string& volume : {a_, b_}) purged += ask("purge", 4, volume, page) != "0" ? 1 : 0;
  }
  done = true;
  attacker.join();
  EXPECT_GT(purged, 0U);
  EXPECT_GT(swaps, 200U);
  EXPECT_TRUE(fs::exists(b_ + "/two/precious"));
}

TEST_F(ADirectoryService, GoesOnWithTheOthersWhenADirectoryHasGone) {
  add(a_ + "/two/old", 50);
  pass();
  start();
  fs::remove(a_ + "/one");
  EXPECT_EQ(ask("purge", 4, a_, 10 * page), pages(1));
}

TEST_F(ADirectoryService, SaysWhyItCannotStart) {
  options_.service.directories.push_back(a_ + "/nothing");
  EXPECT_EQ(whyNot(), "service directory \"" + a_ + "/nothing\": No such file or directory");
  options_.service.directories = {a_};
  EXPECT_THAT(whyNot(), HasSubstr("\"" + a_ + "\": is a mount point"));
  options_.service.directories = {a_ + "/one"};
  options_.rules.ages = {};
  EXPECT_THAT(whyNot(), testing::Not("it started"));
  options_.rules.ages[3] = hours(1);
  options_.service.id = "";
  EXPECT_EQ(whyNot(), "a service needs an ID");
  options_.service.all_volumes = true;
  EXPECT_EQ(whyNot(), "a directory service has directories, not all_volumes");
}

}  // namespace
}  // namespace kelvane::tests
