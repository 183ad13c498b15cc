// A purge and a count that return at their deadline, with what was done until then.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <filesystem>

#include "client/moment.h"
#include "kelvane/folder_purge.h"
#include "platform/dispatch/manual_clock.h"
#include "platform/foundation/file_descriptor.h"
#include "tests/foundation/temporary_directory.h"

namespace kelvane::tests {
namespace {

using client::Cancellation;
using client::FolderPurge;
using client::FolderPurgeOptions;
using client::PurgeEnd;
using client::PurgeOrder;

/// A clock that advances by a second at each reading.
class ClockThatIsLookedAt final : public Clock {
 public:
  ClockThatIsLookedAt() { install(this); }
  ~ClockThatIsLookedAt() override { install(nullptr); }
  ClockThatIsLookedAt(const ClockThatIsLookedAt&) = delete;
  ClockThatIsLookedAt& operator=(const ClockThatIsLookedAt&) = delete;

  [[nodiscard]] std::uint64_t now() const override { return now_.fetch_add(1'000'000'000); }
  [[nodiscard]] std::int64_t calendarMicroseconds() const override { return 0; }
  void wait(std::unique_lock<std::mutex>& /*lock*/, std::condition_variable& /*wakeup*/,
            std::uint64_t /*deadline*/) override {}
  [[nodiscard]] std::optional<std::uint64_t> realDelay(std::uint64_t /*deadline*/) const override {
    return 0;
  }

 private:
  mutable std::atomic<std::uint64_t> now_ = 0;
};

class ADeadline : public testing::Test {
 protected:
  ADeadline() {
    for (int i = 0; i < 20; ++i) directory_.write("file " + std::to_string(i), std::string(4096, 'x'));
  }
  [[nodiscard]] std::ptrdiff_t filesLeft() const {
    return std::distance(std::filesystem::directory_iterator(directory_.path()), {});
  }
  [[nodiscard]] std::uint64_t count(const FolderPurgeOptions& options) const {
    const FileDescriptor folder(::open(directory_.path().c_str(), O_PATH | O_CLOEXEC));
    return client::purgeableBytes(folder.get(), options, never_);
  }

  const test::TemporaryDirectory directory_;
  const Cancellation never_{std::make_shared<std::atomic<bool>>(false)};
};

TEST_F(ADeadline, EndsAPurgeThatIsUnderWay) {
  for (const PurgeOrder order : {PurgeOrder::asFound, PurgeOrder::oldestFirst}) {
    const auto before = filesLeft();
    const ClockThatIsLookedAt clock;
    FolderPurgeOptions options;
    options.order = order;
    options.deadline = client::Moment(std::chrono::seconds(order == PurgeOrder::asFound ? 6 : 26));
    const FolderPurge purged = purgeFolder(directory_.path(), options, never_);
    EXPECT_EQ(purged.end, PurgeEnd::tooLate);
    EXPECT_GT(purged.files, 0U);
    EXPECT_LT(purged.files, 7U);
    EXPECT_EQ(purged.freed, purged.files * 4096);
    EXPECT_EQ(filesLeft(), before - static_cast<std::ptrdiff_t>(purged.files));
  }
}

TEST_F(ADeadline, ThatHasPassedLetsNothingGo) {
  const ManualClock clock;
  FolderPurgeOptions options;
  options.deadline = client::present();
  EXPECT_EQ(purgeFolder(directory_.path(), options, never_).end, PurgeEnd::tooLate);
  EXPECT_EQ(filesLeft(), 20);
  EXPECT_EQ(count(options), 0U);
}

TEST_F(ADeadline, ThatIsToComeChangesNothing) {
  const ManualClock clock;
  FolderPurgeOptions options;
  options.deadline = client::present() + std::chrono::nanoseconds(1);
  EXPECT_EQ(count(options), 20U * 4096);
  EXPECT_EQ(purgeFolder(directory_.path(), options, never_).end, PurgeEnd::nothingLeft);
  EXPECT_EQ(filesLeft(), 0);
}

TEST_F(ADeadline, EndsACountWithWhatWasCounted) {
  const ClockThatIsLookedAt clock;
  FolderPurgeOptions options;
  options.deadline = client::Moment(std::chrono::seconds(6));
  const std::uint64_t counted = count(options);
  EXPECT_GT(counted, 0U);
  EXPECT_LT(counted, 7U * 4096);
}

}  // namespace
}  // namespace kelvane::tests
