#include "client/socket_watcher.h"

#include <gtest/gtest.h>
#include <filesystem>
#include <memory>

#include "tests/client/events.h"
#include "tests/foundation/temporary_directory.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;

class ASocketWatcher : public testing::Test {
 protected:
  client::SocketWatcher watch(const std::string& name) {
    return {directory_ / name, [events = events_] { events->note("appeared"); }};
  }

  const test::TemporaryDirectory directory_;
  const std::shared_ptr<Events> events_ = std::make_shared<Events>();  // a call may end after its watcher
};

TEST_F(ASocketWatcher, TellsWhenTheSocketIsMade) {
  const auto watcher = watch("socket");
  EXPECT_TRUE(watcher.works());
  directory_.write("socket", "");
  events_->await("appeared");
}

TEST_F(ASocketWatcher, TellsWhenTheSocketIsMovedThere) {
  directory_.write("new", "");
  const auto watcher = watch("socket");
  fs::rename(directory_ / "new", directory_ / "socket");
  events_->await("appeared");
}

TEST_F(ASocketWatcher, FollowsFoldersThatAreMadeLater) {
  const auto watcher = watch("a/b/socket");
  fs::create_directories(directory_ / "a/b");
  events_->await("appeared");
  directory_.write("a/b/socket", "");
  events_->await("appeared");
}

TEST_F(ASocketWatcher, FollowsAFolderThatIsMadeAnew) {
  fs::create_directories(directory_ / "a/b");
  const auto watcher = watch("a/b/socket");
  fs::remove_all(directory_ / "a");
  events_->await("appeared");
  directory_.write("a/b/socket", "");
  events_->await("appeared");
  fs::remove_all(directory_ / "a");
  events_->await("appeared");
}

TEST_F(ASocketWatcher, KeepsQuietAboutOtherFiles) {
  const auto watcher = watch("socket");
  directory_.write("other", "");
  directory_.write("socket", "");  // told of after the other, were that told of
  events_->await("appeared");
  directory_.write("other2", "");
  fs::rename(directory_ / "other", directory_ / "socket");
  events_->await("appeared");
  EXPECT_EQ(events_->count(), 0U);
}

}  // namespace
}  // namespace kelvane::tests
