#include "platform/host/notify.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/foundation/file_descriptor.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/directory_events.h"

namespace kelvane::tests {
namespace {

class Notification : public testing::Test {
 protected:
  void SetUp() override { notify_set_directory(directory_ / "notify"); }
  void TearDown() override { notify_set_directory("/run/kelvane/notify"); }
  std::string number(const std::string& name) const {
    std::string text;
    std::getline(std::ifstream(directory_ / ("notify/" + name)), text);
    return text;
  }
  const test::TemporaryDirectory directory_;
};

TEST_F(Notification, EachPostAddsOneToItsCounter) {
  EXPECT_EQ(notify_post("com.orvel.kelvane.launched"), 0U);
  EXPECT_EQ(number("com.orvel.kelvane.launched"), "1");
  EXPECT_EQ(notify_post("com.orvel.kelvane.launched"), 0U);
  EXPECT_EQ(notify_post("other"), 0U);
  EXPECT_EQ(number("com.orvel.kelvane.launched"), "2");
  EXPECT_EQ(number("other"), "1");
}

TEST_F(Notification, WhoWatchesTheDirectoryIsTold) {
  ASSERT_EQ(notify_post("name"), 0U);
  const DirectoryEvents events(directory_ / "notify", IN_MODIFY);
  ASSERT_EQ(notify_post("name"), 0U);
  EXPECT_EQ(events.await(), 1U);
}

TEST_F(Notification, ACounterThatIsNoneBeginsAnew) {
  directory_.write("notify/name", "not a number");
  EXPECT_EQ(notify_post("name"), 0U);
  EXPECT_EQ(number("name"), "1");
}

TEST_F(Notification, PostsFromSeveralThreadsAreAllCounted) {
  constexpr int threads = 4;
  constexpr int posts = 2000;
  std::atomic<int> ready = 0;
  std::vector<std::thread> posting;
  for (int i = 0; i < threads; ++i) {
    posting.emplace_back([&ready] {
      ++ready;
      while (ready < threads) continue;
      for (int post = 0; post < posts; ++post) EXPECT_EQ(notify_post("name"), 0U);
    });
  }
  for (std::thread& thread : posting) thread.join();
  EXPECT_EQ(number("name"), std::to_string(threads * posts));
}

TEST_F(Notification, ANameThatIsAPathIsRefused) {
  for (const char* name : {"", ".", "..", "a/b", "../a"}) {
    errno = 0;
    EXPECT_NE(notify_post(name), 0U) << name;
    EXPECT_EQ(errno, EINVAL) << name;
  }
}

/// Another process that has done something to a counter, and lives as long as this.
class Adversary {
 public:
  Adversary(uid_t user, const std::function<bool()>& act) {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const FileDescriptor done(ends[0]);
    FileDescriptor tell(ends[1]);
    process_ = ::fork();
    if (process_ == 0) {
      std::signal(SIGIO, SIG_IGN);  // how the kernel asks for a lease to be given back
      if (::setresuid(user, user, user) == 0 && act()) static_cast<void>(::write(tell.get(), "x", 1) == 1);
      tell.reset();
      while (true) ::pause();
    }
    tell.reset();
    char byte = 0;
    acted_ = ::read(done.get(), &byte, 1) == 1;
  }
  ~Adversary() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  Adversary(const Adversary&) = delete;
  Adversary& operator=(const Adversary&) = delete;

  [[nodiscard]] bool acted() const { return acted_; }

 private:
  pid_t process_ = -1;
  bool acted_ = false;
};

constexpr uid_t somebody = 65534;

/// The result of a post, and its errno; nothing if it does not return in a time that only a wait can exceed.
std::optional<std::pair<std::uint32_t, int>> postWhile(std::optional<Adversary>& adversary) {
  auto posted = std::async(std::launch::async, [] {
    errno = 0;
    const std::uint32_t result = notify_post("name");
    return std::pair(result, errno);
  });
  if (posted.wait_for(std::chrono::seconds(10)) == std::future_status::ready) return posted.get();
  adversary.reset();  // lets the post go on
  return std::nullopt;
}

TEST_F(Notification, ALockOfAnotherUserHoldsNobodyUp) {
  ASSERT_EQ(notify_post("name"), 0U);
  ASSERT_EQ(::chmod((directory_ / "").c_str(), 0755), 0);
  std::optional<Adversary> adversary(std::in_place, somebody, [this] {
    const int file = ::open((directory_ / "notify/name").c_str(), O_RDONLY);
    struct flock all {};
    all.l_type = F_RDLCK;
    return ::flock(file, LOCK_EX) == 0 && ::fcntl(file, F_SETLK, &all) == 0;
  });
  ASSERT_TRUE(adversary->acted());
  const auto posted = postWhile(adversary);
  ASSERT_TRUE(posted) << "the post waits for the lock";
  EXPECT_EQ(posted->first, 0U);
  EXPECT_EQ(number("name"), "2");
}

TEST_F(Notification, ALeaseIsRefusedToOtherUsersAndFailsAPostInsteadOfHoldingItUp) {
  ASSERT_EQ(notify_post("name"), 0U);
  ASSERT_EQ(::chmod((directory_ / "").c_str(), 0755), 0);
  const auto lease = [this] {
    return ::fcntl(::open((directory_ / "notify/name").c_str(), O_RDONLY), F_SETLEASE, F_RDLCK) == 0;
  };
  EXPECT_FALSE(Adversary(somebody, lease).acted());
  std::optional<Adversary> adversary(std::in_place, ::getuid(), lease);
  ASSERT_TRUE(adversary->acted());
  const auto posted = postWhile(adversary);
  ASSERT_TRUE(posted) << "the post waits for the lease";
  EXPECT_NE(posted->first, 0U);
  EXPECT_EQ(posted->second, EAGAIN);
}

TEST_F(Notification, AFIFOInPlaceOfTheCounterIsNotWaitedFor) {
  ASSERT_EQ(notify_post("other"), 0U);
  ASSERT_EQ(::mkfifo((directory_ / "notify/name").c_str(), 0666), 0);
  std::optional<Adversary> adversary;
  const auto posted = postWhile(adversary);
  ASSERT_TRUE(posted);
  EXPECT_NE(posted->first, 0U);
  EXPECT_EQ(posted->second, ESPIPE);
}

TEST_F(Notification, ALinkInPlaceOfTheCounterIsNotFollowed) {
  ASSERT_EQ(notify_post("other"), 0U);
  directory_.write("target", "7");
  ASSERT_EQ(::symlink((directory_ / "target").c_str(), (directory_ / "notify/name").c_str()), 0);
  errno = 0;
  EXPECT_NE(notify_post("name"), 0U);
  EXPECT_EQ(errno, ELOOP);
}

TEST_F(Notification, AFailureLeavesItsReasonInErrno) {
  notify_set_directory(directory_ / "missing/notify");
  errno = 0;
  EXPECT_NE(notify_post("name"), 0U);
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace kelvane::tests
