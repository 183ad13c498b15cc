// Asking file systems that may never answer, with one that answers when the test says so.

#include "support/volume_probe.h"

#include <gtest/gtest.h>
#include <condition_variable>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch/executor.h"
#include "platform/dispatch/manual_clock.h"
#include "support/volumes.h"
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
    std::thread asking([&] { EXPECT_FALSE(ask(path)); });
    while (file_system_->asked() == 0) std::this_thread::yield();
    clock_.advanceToWaiterFor(probe_patience);
    asking.join();
  }

  std::optional<VolumeSpace> ask(const std::string& path, std::uint64_t mount = 0) {
    return probe_.answerTo(
        probe_.put({path, mount}, [file_system = file_system_, path] { return file_system->ask(path); }));
  }

  LogCapture log_;
  ManualClock clock_;
  // Shared with the threads that ask it, which may end after the test.
  const std::shared_ptr<Reluctant> file_system_ = std::make_shared<Reluctant>();
  VolumeProbe<VolumeSpace> probe_{"volumeFreespace"};
};

TEST_F(Probe, PassesAnAnswerOn) {
  const auto space = ask("/quick");
  ASSERT_TRUE(space);
  EXPECT_EQ(space->bytes_free, some.bytes_free);
  EXPECT_EQ(space->files_total, some.files_total);
}

TEST_F(Probe, GivesUpAfterHalfASecondSaysSoOnceAndAsksNoSecondTime) {
  giveUpOn("/hung");
  for (int i = 0; i < 100; ++i) EXPECT_FALSE(ask("/hung"));
  EXPECT_EQ(file_system_->asked(), 1);
  EXPECT_EQ(log_.count(3, "volumeFreespace /hung does not answer, going on without it"), 1U);
  EXPECT_TRUE(ask("/quick"));
  file_system_->answer();
  while (!log_.contains(3, "volumeFreespace /hung answers again")) std::this_thread::yield();
}

TEST_F(Probe, AsksAgainOnceItWasAnswered) {
  giveUpOn("/hung");
  file_system_->answer();
  while (!log_.contains("answers again")) std::this_thread::yield();
  EXPECT_TRUE(ask("/hung"));
  EXPECT_EQ(log_.count("does not answer"), 1U);
}

TEST_F(Probe, WhoAsksWhileAQuestionIsOutWaitsForThatOne) {
  std::optional<VolumeSpace> first;
  std::optional<VolumeSpace> second;
  std::thread one([&] { first = ask("/slow"); });
  while (file_system_->asked() == 0) std::this_thread::yield();
  std::thread other([&] { second = ask("/slow"); });
  clock_.awaitWaiterFor(probe_patience, 2);
  file_system_->answer();
  one.join();
  other.join();
  EXPECT_EQ(file_system_->asked(), 1);
  EXPECT_TRUE(first);
  EXPECT_TRUE(second);
}

TEST_F(Probe, PutsNoMoreQuestionsThanItHasThreadsToSpare) {
  const auto put = [this](std::uint64_t mount) {
    return probe_.put({"/hung", mount}, [file_system = file_system_] { return file_system->ask("/hung"); });
  };
  std::vector<std::shared_ptr<VolumeProbe<VolumeSpace>::Question>> questions;
  for (std::uint64_t mount = 1; mount <= most_probes; ++mount) questions.push_back(put(mount));
  const auto one_more = put(most_probes + 1);
  EXPECT_EQ(one_more, nullptr);
  EXPECT_FALSE(probe_.answerTo(one_more));
  EXPECT_EQ(put(1), questions.front()) << "is out already";
  file_system_->answer();
  for (const auto& question : questions) EXPECT_TRUE(probe_.answerTo(question));
}

TEST_F(Probe, ANewMountAtThePathOfOneThatHangsIsAskedByItself) {
  giveUpOn("/hung");
  std::optional<VolumeSpace> space;
  std::thread asking([&] { space = ask("/hung", 7); });
  while (file_system_->asked() < 2) std::this_thread::yield();
  EXPECT_FALSE(ask("/hung"));
  file_system_->answer();
  asking.join();
  EXPECT_TRUE(space);
}

TEST_F(Probe, QuestionsThatHangKeepNoThreadOfThePool) {
  std::vector<std::shared_ptr<VolumeProbe<VolumeSpace>::Question>> questions;
  const unsigned before = dispatch_statistics().threads;
  for (std::uint64_t mount = 1; mount <= 32; ++mount)
    questions.push_back(
        probe_.put({"/hung", mount}, [file_system = file_system_] { return file_system->ask("/hung"); }));
  while (file_system_->asked() < 32) std::this_thread::yield();
  EXPECT_EQ(dispatch_statistics().threads, before);
  file_system_->answer();
  for (const auto& question : questions) EXPECT_TRUE(probe_.answerTo(question));
}

}  // namespace
}  // namespace kelvane::tests
