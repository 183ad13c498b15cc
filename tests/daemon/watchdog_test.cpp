#include "daemon/watchdog.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "platform/dispatch/executor.h"
#include "platform/dispatch/group.h"
#include "platform/dispatch/manual_clock.h"
#include "platform/foundation/file_descriptor.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/scoped_environment.h"

namespace kelvane::tests {
namespace {

constexpr std::uint64_t second = 1'000'000'000;

/// The service manager's end of the socket that it names in the environment.
class ServiceManager {
 public:
  ServiceManager() {
    const std::string path = directory_ / "notify";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), std::begin(address.sun_path));
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  /// What has been said since the last call.
  std::vector<std::string> heard() {
    std::vector<std::string> messages;
    std::array<char, 64> text{};
    for (ssize_t n = 0; (n = ::recv(socket_.get(), text.data(), text.size(), MSG_DONTWAIT)) >= 0;)
      messages.emplace_back(text.data(), static_cast<std::size_t>(n));
    return messages;
  }

 private:
  const test::TemporaryDirectory directory_;
  const FileDescriptor socket_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  const ScopedEnvironment variable_{"NOTIFY_SOCKET", directory_ / "notify"};
};

/// A service manager that waits for a minute, and a queue to be watched. Each test leaves no timer behind.
class WatchdogTest : public testing::Test {
 protected:
  ~WatchdogTest() override {
    watchdog_.reset();
    EXPECT_EQ(dispatch_statistics().timers, 0U);
  }
  /// Moves the clock, and lets the queue do what is due.
  void pass(std::uint64_t seconds) {
    clock_.advance(seconds * second);
    dispatch_sync(queue_, [] {});
  }

  ManualClock clock_;
  ServiceManager manager_;
  const ScopedEnvironment patience_{"WATCHDOG_USEC", "60000000"};
  const ScopedEnvironment process_{"WATCHDOG_PID", std::to_string(::getpid())};
  const dispatch_queue_t queue_ = dispatch_queue_create("watched");
  std::shared_ptr<Watchdog> watchdog_;
};

using Messages = std::vector<std::string>;

TEST_F(WatchdogTest, WhileTheQueueRunsASignOfLifeGoesOutEachThirdOfTheServiceManagersPatience) {
  watchdog_ = Watchdog::over(queue_);
  pass(19);
  EXPECT_EQ(manager_.heard(), Messages{});
  for (int i = 0; i < 3; ++i) {
    pass(1);
    EXPECT_EQ(manager_.heard(), Messages{"WATCHDOG=1"});
    pass(19);
    EXPECT_EQ(manager_.heard(), Messages{});
  }
}

TEST_F(WatchdogTest, WhileTheQueueIsHeldUpNothingGoesOutAndOneSignOfLifeFollows) {
  watchdog_ = Watchdog::over(queue_);
  const dispatch_semaphore_t held = dispatch_semaphore_create(0);
  const dispatch_semaphore_t begun = dispatch_semaphore_create(0);
  dispatch_async(queue_, [=] {
    dispatch_semaphore_signal(begun);
    static_cast<void>(dispatch_semaphore_wait(held, DISPATCH_TIME_FOREVER));
  });
  ASSERT_EQ(dispatch_semaphore_wait(begun, DISPATCH_TIME_FOREVER), 0);
  for (int i = 0; i < 10; ++i) clock_.advance(60 * second);
  EXPECT_EQ(dispatch_statistics().timers, 0U);  // nothing is left that could wake the process
  EXPECT_EQ(manager_.heard(), Messages{});
  dispatch_semaphore_signal(held);
  pass(0);
  EXPECT_EQ(manager_.heard(), Messages{"WATCHDOG=1"});
  pass(20);
  EXPECT_EQ(manager_.heard(), Messages{"WATCHDOG=1"});
}

TEST_F(WatchdogTest, ASuspendedQueueIsAHeldUpOne) {
  watchdog_ = Watchdog::over(queue_);
  dispatch_suspend(queue_);
  clock_.advance(40 * second);
  EXPECT_EQ(manager_.heard(), Messages{});
  dispatch_resume(queue_);
  pass(0);
  EXPECT_EQ(manager_.heard(), Messages{"WATCHDOG=1"});
}

TEST_F(WatchdogTest, NothingGoesOutAfterItsEnd) {
  watchdog_ = Watchdog::over(queue_);
  watchdog_.reset();
  pass(60);
  EXPECT_EQ(manager_.heard(), Messages{});
}

TEST_F(WatchdogTest, ThereIsNoneWhereNobodyWaitsForSignsOfLife) {
  const ScopedEnvironment none("WATCHDOG_USEC", std::nullopt);
  EXPECT_FALSE(Watchdog::over(queue_));
}

TEST_F(WatchdogTest, ThereIsNoneWhereThoseOfAnotherProcessAreWaitedFor) {
  const ScopedEnvironment other("WATCHDOG_PID", "1");
  EXPECT_FALSE(Watchdog::over(queue_));
}

TEST_F(WatchdogTest, APatienceThatMakesNoSenseIsNone) {
  for (const char* text : {"soon", "0", "-1"}) {
    const ScopedEnvironment nonsense("WATCHDOG_USEC", text);
    EXPECT_FALSE(Watchdog::over(queue_)) << text;
  }
}

TEST_F(WatchdogTest, HoweverPatientTheServiceManagerItHearsOfUsEachHour) {
  const ScopedEnvironment patient("WATCHDOG_USEC", "18446744073709551614");
  watchdog_ = Watchdog::over(queue_);
  pass(3599);
  EXPECT_EQ(manager_.heard(), Messages{});
  pass(1);
  EXPECT_EQ(manager_.heard(), Messages{"WATCHDOG=1"});
}

}  // namespace
}  // namespace kelvane::tests
