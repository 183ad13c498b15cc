// What stops the work on a root while it lasts.

#include "caches/guard.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>
#include <array>
#include <chrono>
#include <filesystem>
#include <thread>

#include "tests/caches/temporary_directory.h"

namespace kelvane::caches::tests {
namespace {

/// Waits until the condition holds, with a generous time limit.
bool comesTrue(const std::function<bool()>& condition) {
  const auto given_up = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition() && std::chrono::steady_clock::now() < given_up) std::this_thread::yield();
  return condition();
}

class GuardTest : public testing::Test {
 protected:
  GuardTest() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends_.data()), 0); }
  ~GuardTest() override {
    ::close(ends_[0]);
    ::close(ends_[1]);
  }

  std::array<int, 2> ends_{};
};

TEST_F(GuardTest, StopsTheWorkWhenNobodyWaits) {
  Guard guard(ends_[0]);
  const client::Cancellation cancellation = guard.watch(nullptr);
  EXPECT_FALSE(cancellation.isCancelled());
  ::shutdown(ends_[1], SHUT_WR);
  EXPECT_TRUE(comesTrue([&] { return cancellation.isCancelled(); }));
  EXPECT_TRUE(guard.isCancelled());
  EXPECT_TRUE(guard.watch(nullptr).isCancelled()) << "of all that would come after it, too";
}

TEST_F(GuardTest, StopsTheWorkOnARootWhoseProgramStarts) {
  const TemporaryDirectory home;
  const FileDescriptor root(::open(home.path().c_str(), O_RDONLY | O_DIRECTORY));
  const Signs signs({{InUse::Kind::exists, "running"}}, home.path(), root.get(), root.get(), {});
  Guard guard(ends_[0]);
  const client::Cancellation first = guard.watch(&signs);
  EXPECT_FALSE(first.isCancelled());
  write(home / "running", "");
  EXPECT_TRUE(comesTrue([&] { return first.isCancelled(); }));
  std::filesystem::remove(home / "running");
  EXPECT_FALSE(guard.watch(&signs).isCancelled()) << "other roots are not concerned";
  EXPECT_FALSE(guard.isCancelled());
}

}  // namespace
}  // namespace kelvane::caches::tests
