#include "tests/attack/another_user.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <algorithm>
#include <cstdio>

#include "tests/attack/requests.h"
#include "tests/attack/scale.h"

namespace kelvane::tests {
namespace {

constexpr std::size_t enough_answers = 200;
constexpr auto between_questions = std::chrono::milliseconds(3);
constexpr std::chrono::milliseconds patience(20'000);

}  // namespace

AnotherUser::AnotherUser(const AttackedDaemon& daemon)
    : peer_(peerOf(daemon, bystander)), thread_([this] { ask(); }) {}

AnotherUser::~AnotherUser() {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
}

bool AnotherUser::isAnswered() const {
  pollfd answer{peer_.descriptor(), POLLIN, 0};
  return ::poll(&answer, 1, static_cast<int>(patience.count())) == 1;
}

void AnotherUser::ask() {
  for (std::uint32_t serial = 1; !stopping_ || waits_.size() < enough_answers; ++serial) {
    const auto before = std::chrono::steady_clock::now();
    peer_.send(getState(serial, "com.example.bystander").bytes());
    const auto reply = isAnswered() ? peer_.receive() : std::nullopt;
    if (!reply || reply->type != 2) {
      ADD_FAILURE() << "another user is not served";
      return;
    }
    waits_.push_back(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - before));
    std::this_thread::sleep_for(between_questions);
  }
}

AnotherUser::Waits AnotherUser::stop() {
  stopping_ = true;
  thread_.join();
  if (waits_.empty()) return {};
  std::sort(waits_.begin(), waits_.end());
  return {waits_.size(), waits_[waits_.size() / 2], waits_[waits_.size() * 99 / 100], waits_.back()};
}

void expectUnharmed(AnotherUser& user, const AttackedDaemon& daemon) {
  const AnotherUser::Waits waits = user.stop();
  const std::size_t megabytes = daemon.peakMegabytes();
  std::printf(
      "[  figures ] %s: %zu MB at most, %zu descriptors; another user: %zu answers, median %.1f ms, "
      "99th percentile %.1f ms, longest %.1f ms\n",
      testing::UnitTest::GetInstance()->current_test_info()->name(), megabytes, daemon.descriptors(),
      waits.answers, static_cast<double>(waits.median.count()) / 1000,
      static_cast<double>(waits.percentile99.count()) / 1000,
      static_cast<double>(waits.longest.count()) / 1000);
  EXPECT_LT(megabytes, scale.most_resident_megabytes);
  EXPECT_LT(waits.percentile99, scale.slowest_answer);
}

}  // namespace kelvane::tests
