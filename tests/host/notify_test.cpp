#include "platform/host/notify.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <thread>

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
  const auto post = [] {
    for (int i = 0; i < 100; ++i) EXPECT_EQ(notify_post("name"), 0U);
  };
  std::thread other(post);
  post();
  other.join();
  EXPECT_EQ(number("name"), "200");
}

TEST_F(Notification, ANameThatIsAPathIsRefused) {
  for (const char* name : {"", ".", "..", "a/b", "../a"}) {
    errno = 0;
    EXPECT_NE(notify_post(name), 0U) << name;
    EXPECT_EQ(errno, EINVAL) << name;
  }
}

TEST_F(Notification, AFailureLeavesItsReasonInErrno) {
  notify_set_directory(directory_ / "missing/notify");
  errno = 0;
  EXPECT_NE(notify_post("name"), 0U);
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace kelvane::tests
