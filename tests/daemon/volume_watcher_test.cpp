// The watcher over volumes and a clock of the test's own: what it looks at, when, and whom it calls.

#include "daemon/volume_watcher.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include "daemon/low_disk.h"
#include "platform/dispatch/group.h"
#include "platform/dispatch/manual_clock.h"
#include "tests/support/fake_volumes.h"

namespace kelvane {
namespace {

constexpr std::uint64_t ms = 1'000'000;
constexpr std::uint64_t second = 1000 * ms;
constexpr VolumeSpace plenty{1ULL << 40, 1ULL << 41, 0, 0};
constexpr VolumeSpace low{(1ULL << 31) - 1, 1ULL << 41, 0, 0};
constexpr std::uint64_t look_again_at_low = 268'435'455;  // a gibibyte less one above very low, at 4 GB/s
constexpr VolumeSpace very_low{1ULL << 29, 1ULL << 41, 0, 0};

/// Stands for the purge: notes each call, and holds it until the test lets it end.
class Purge {
 public:
  void call(std::uint64_t flag, VolumeWatcher::Ended ended) {
    const std::lock_guard lock(mutex_);
    flags_.push_back(flag);
    ended_ = std::move(ended);
    changed_.notify_all();
  }
  /// Blocks until so many calls have been made in all, and returns the last one's flag.
  std::uint64_t awaitCall(std::size_t number) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return flags_.size() >= number; });
    EXPECT_EQ(flags_.size(), number);
    return flags_.back();
  }
  void end(std::uint64_t bytes) {
    VolumeWatcher::Ended ended;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [&] { return ended_ != nullptr; });
      ended.swap(ended_);
    }
    ended(bytes);
  }
  std::size_t calls() {
    const std::lock_guard lock(mutex_);
    return flags_.size();
  }

 private:
  std::mutex mutex_;  // guards all below
  std::condition_variable changed_;
  std::vector<std::uint64_t> flags_;
  VolumeWatcher::Ended ended_;  // of the call under way
};

class Watcher : public testing::Test {
 protected:
  void start() {
    // What the watcher calls is destroyed with it, on whichever thread lets go of it last.
    const std::shared_ptr<void> alive(nullptr, [gone = gone_](void*) { dispatch_semaphore_signal(gone); });
    watcher_ = VolumeWatcher::start([this, alive](std::uint64_t flag, VolumeWatcher::Ended ended) {
      purge_.call(flag, std::move(ended));
    });
  }
  void TearDown() override {
    if (watcher_ == nullptr) return;
    watcher_->stop();
    watcher_.reset();
    EXPECT_EQ(dispatch_semaphore_wait(gone_, DISPATCH_TIME_FOREVER), 0);
  }

  const dispatch_semaphore_t gone_ = dispatch_semaphore_create(0);
  ManualClock clock_;
  tests::FakeVolumes volumes_;
  Purge purge_;
  std::shared_ptr<VolumeWatcher> watcher_;
};

TEST_F(Watcher, CallsForAVolumeThatIsLowAtTheStart) {
  volumes_.add("/data", low);
  start();
  EXPECT_EQ(purge_.awaitCall(1), VQ_LOWDISK);
  purge_.end(0);
  clock_.awaitWaiterFor(look_again_at_low);
}

TEST_F(Watcher, LooksEveryTenSecondsWhileThereIsPlentyAndCallsWhenThatEnds) {
  volumes_.add("/data", plenty);
  start();
  clock_.advanceToWaiterFor(10 * second);
  clock_.awaitWaiterFor(10 * second);
  EXPECT_EQ(purge_.calls(), 0U);
  volumes_.setSpace("/data", very_low);
  clock_.advance(10 * second);
  EXPECT_EQ(purge_.awaitCall(1), VQ_VERYLOWDISK);
  purge_.end(0);
  clock_.awaitWaiterFor(5 * ms);  // half a gibibyte in ten seconds, when half of that is left
}

TEST_F(Watcher, OneTimerServesVolumesThatAreDueAtNearlyTheSameTime) {
  volumes_.add("/data", plenty);
  start();
  clock_.awaitWaiterFor(10 * second);
  clock_.advance(2 * second);
  volumes_.add("/more", plenty);
  watcher_->mountsChanged();
  clock_.advanceToWaiterFor(8 * second);
  clock_.awaitWaiterFor(10 * second);
  EXPECT_EQ(purge_.calls(), 0U);
}

TEST_F(Watcher, AVolumeThatIsMountedIsLookedAtAtOnceAndOneThatIsUnmountedNoMore) {
  volumes_.add("/data", plenty);
  start();
  clock_.advanceToWaiterFor(10 * second);
  volumes_.add("/usb", low);
  watcher_->mountsChanged();
  EXPECT_EQ(purge_.awaitCall(1), VQ_LOWDISK);
  volumes_.remove("/usb");
  purge_.end(0);
  clock_.advanceToWaiterFor(look_again_at_low);
  watcher_->mountsChanged();
  clock_.awaitWaiterFor(10 * second - look_again_at_low);
  EXPECT_EQ(purge_.calls(), 1U);
}

TEST_F(Watcher, ChangesOfTheMountTableSoonAfterOneAnotherAreReadOnce) {
  volumes_.add("/data", plenty);
  start();
  clock_.awaitWaiterFor(10 * second);
  const int before = volumes_.timesRead();
  for (int i = 0; i < 100; ++i) {
    volumes_.add("/more" + std::to_string(i), plenty);
    watcher_->mountsChanged();
  }
  clock_.awaitWaiterFor(20 * ms);
  EXPECT_EQ(volumes_.timesRead(), before);
  clock_.advance(20 * ms);
  while (volumes_.timesRead() == before) std::this_thread::yield();
  watcher_->stop();
  EXPECT_EQ(volumes_.timesRead(), before + 1);
}

TEST_F(Watcher, GoesOnLookingWhileAPurgeLastsAndMakesOneCallForAllThatRanLowMeanwhile) {
  volumes_.add("/b", plenty);
  start();
  clock_.awaitWaiterFor(10 * second);
  clock_.advance(second);
  volumes_.add("/a", low);
  watcher_->mountsChanged();
  ASSERT_EQ(purge_.awaitCall(1), VQ_LOWDISK);
  volumes_.setSpace("/b", very_low);
  clock_.awaitWaiterFor(look_again_at_low);  // the next look at "/a"
  clock_.advance(10 * second);
  clock_.awaitWaiterFor(5 * ms);  // "/b" was seen, and is looked at closely from now on
  EXPECT_EQ(purge_.calls(), 1U);
  purge_.end(0);
  EXPECT_EQ(purge_.awaitCall(2), VQ_VERYLOWDISK);
  volumes_.setSpace("/a", plenty);
  volumes_.setSpace("/b", plenty);
  purge_.end(1 << 30);
}

TEST_F(Watcher, AnswersTheKernelsWarningForTheDaemonsUserAtOnceAndLaterOnesOnceASecond) {
  volumes_.add("/data", plenty);
  start();
  clock_.awaitWaiterFor(10 * second);
  const QuotaWarning warning{QuotaWarning::Of::user, ::getuid(), true};
  watcher_->quotaExceeded(warning);
  EXPECT_EQ(purge_.awaitCall(1), VFS_QUOTA);
  watcher_->quotaExceeded(warning);
  watcher_->quotaExceeded(warning);
  purge_.end(0);
  clock_.advanceToWaiterFor(1 * second);
  EXPECT_EQ(purge_.awaitCall(2), VFS_QUOTA);
  purge_.end(0);
}

TEST_F(Watcher, AWarningForSomebodyElseOrOfBeingBelowAgainCallsForNothing) {
  volumes_.add("/data", plenty);
  start();
  clock_.awaitWaiterFor(10 * second);
  watcher_->quotaExceeded({QuotaWarning::Of::user, ::getuid() + 1, true});
  watcher_->quotaExceeded({QuotaWarning::Of::user, ::getuid(), false});
  watcher_->quotaExceeded({QuotaWarning::Of::project, ::getuid(), true});
  watcher_->quotaExceeded({QuotaWarning::Of::group, ::getuid(), true});
  clock_.advance(10 * second);
  clock_.awaitWaiterFor(10 * second);
  EXPECT_EQ(purge_.calls(), 0U);
}

TEST_F(Watcher, AVolumeThatCannotBeAskedKeepsNobodyFromBeingServed) {
  volumes_.add("/gone", plenty);
  volumes_.setSpace("/gone", std::nullopt);
  volumes_.add("/data", low);
  start();
  EXPECT_EQ(purge_.awaitCall(1), VQ_LOWDISK);
  purge_.end(0);
}

TEST_F(Watcher, AVolumeThatCannotBeAskedIsTriedAgain) {
  volumes_.add("/gone", plenty);
  volumes_.setSpace("/gone", std::nullopt);
  start();
  clock_.awaitWaiterFor(10 * second);
  volumes_.setSpace("/gone", very_low);
  clock_.advance(10 * second);
  EXPECT_EQ(purge_.awaitCall(1), VQ_VERYLOWDISK);
  purge_.end(0);
}

TEST_F(Watcher, NothingIsLookedAtOrCalledForAfterItWasStopped) {
  volumes_.add("/data", plenty);
  start();
  clock_.awaitWaiterFor(10 * second);
  watcher_->stop();
  volumes_.setSpace("/data", low);
  clock_.advance(10 * second);
  watcher_->mountsChanged();
  watcher_->quotaExceeded({QuotaWarning::Of::user, ::getuid(), true});
  TearDown();
  EXPECT_EQ(purge_.calls(), 0U);
}

}  // namespace
}  // namespace kelvane
