// Asking file systems that may never answer, with one that answers when the test says so.

#include "support/space_probe.h"

#include <gtest/gtest.h>
#include <condition_variable>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch/manual_clock.h"
#include "tests/support/log_capture.h"

namespace kelvane::tests {
namespace {

constexpr VolumeSpace some{1 << 20, 1 << 21, 3, 4};

/// Answers for "/quick" at once and for every other path when told to.
class Reluctant {
 public:
  std::optional<VolumeSpace> ask(const std::string& path) {
    if (path == "/quick") return some;
    std::unique_lock lock(mutex_);
    ++asked_;
    changed_.wait(lock, [this] { return answers_; });
    return some;
  }
  void answer() {
    const std::lock_guard lock(mutex_);
    answers_ = true;
    changed_.notify_all();
  }
  int asked() {
    const std::lock_guard lock(mutex_);
    return asked_;
  }

 private:
  std::mutex mutex_;  // guards all below
  std::condition_variable changed_;
  bool answers_ = false;
  int asked_ = 0;
};

class Probe : public testing::Test {
 protected:
  /// Asks and gives up when the patience is over.
  void giveUpOn(const std::string& path) {
    std::thread asking([&] { EXPECT_FALSE(probe_.ask(path)); });
    while (file_system_.asked() == 0) std::this_thread::yield();
    clock_.advanceToWaiterFor(SpaceProbe::patience);
    asking.join();
  }

  LogCapture log_;
  ManualClock clock_;
  Reluctant file_system_;
  SpaceProbe probe_{[this](const std::string& path) { return file_system_.ask(path); }};
};

TEST_F(Probe, PassesAnAnswerOn) {
  const auto space = probe_.ask("/quick");
  ASSERT_TRUE(space);
  EXPECT_EQ(space->bytes_free, some.bytes_free);
  EXPECT_EQ(space->files_total, some.files_total);
}

TEST_F(Probe, GivesUpAfterHalfASecondSaysSoOnceAndAsksNoSecondTime) {
  giveUpOn("/hung");
  for (int i = 0; i < 100; ++i) EXPECT_FALSE(probe_.ask("/hung"));
  EXPECT_EQ(file_system_.asked(), 1);
  EXPECT_EQ(log_.count(3, "volumeFreespace /hung does not answer, going on without it"), 1U);
  EXPECT_TRUE(probe_.ask("/quick"));
  file_system_.answer();
  while (!log_.contains(3, "volumeFreespace /hung answers again")) std::this_thread::yield();
}

TEST_F(Probe, AsksAgainOnceItWasAnswered) {
  giveUpOn("/hung");
  file_system_.answer();
  while (!log_.contains("answers again")) std::this_thread::yield();
  EXPECT_TRUE(probe_.ask("/hung"));
  EXPECT_EQ(log_.count("does not answer"), 1U);
}

TEST_F(Probe, WhoAsksWhileAQuestionIsOutWaitsForThatOne) {
  std::optional<VolumeSpace> first;
  std::optional<VolumeSpace> second;
  std::thread one([&] { first = probe_.ask("/slow"); });
  while (file_system_.asked() == 0) std::this_thread::yield();
  std::thread other([&] { second = probe_.ask("/slow"); });
  clock_.awaitWaiterFor(SpaceProbe::patience, 2);
  file_system_.answer();
  one.join();
  other.join();
  EXPECT_EQ(file_system_.asked(), 1);
  EXPECT_TRUE(first);
  EXPECT_TRUE(second);
}

TEST_F(Probe, PutsNoMoreQuestionsThanItHasThreadsToSpare) {
  std::vector<std::thread> asking;
  for (std::size_t i = 0; i < SpaceProbe::most_questions; ++i) {
    asking.emplace_back([this, i] { EXPECT_FALSE(probe_.ask("/hung" + std::to_string(i))); });
  }
  while (file_system_.asked() < static_cast<int>(SpaceProbe::most_questions)) std::this_thread::yield();
  EXPECT_FALSE(probe_.ask("/one more"));
  EXPECT_EQ(file_system_.asked(), static_cast<int>(SpaceProbe::most_questions));
  clock_.awaitWaiterFor(SpaceProbe::patience, SpaceProbe::most_questions);
  clock_.advance(SpaceProbe::patience);
  for (std::thread& thread : asking) thread.join();
  file_system_.answer();
  while (log_.count("answers again") < SpaceProbe::most_questions) std::this_thread::yield();
}

}  // namespace
}  // namespace kelvane::tests
