// The example services, in C++ and in Python: killed, stopped, started again, and with a daemon that goes and
// comes back, each is in the registry again without help.

#include <gtest/gtest.h>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>

#include "common/keys.h"
#include "tests/system/daemon.h"

namespace kelvane::tests {
namespace {

constexpr std::uint64_t mebibyte = 1 << 20;
constexpr const char* ID = "com.example.cache";

class ExampleService : public testing::TestWithParam<const char*> {
 protected:
  /// Any file may go, unless `ages` are given.
  [[nodiscard]] std::vector<std::string> command(const std::string& directory,
                                                 const std::vector<std::string>& ages = {
                                                     "--lifetime", "0", "--youngest", "0"}) const {
    std::vector<std::string> command = {built("cache_service")};
    if (GetParam() == std::string("python"))
      command = {"/usr/bin/python3", KELVANE_SOURCE_FOLDER "/examples/python_service.py"};
    const std::vector<std::string> arguments = {"--id",    ID,         "--folder",
                                                directory, "--daemon", daemon_.socket()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    command.insert(command.end(), ages.begin(), ages.end());
    return command;
  }
  [[nodiscard]] static std::unique_ptr<Process> start(const std::vector<std::string>& command) {
    auto service = std::make_unique<Process>(command);
    EXPECT_TRUE(service->printed("registered")) << service->output();
    return service;
  }
  [[nodiscard]] std::unique_ptr<Process> start() const { return start(command(folder_)); }
  [[nodiscard]] std::uint64_t purged(std::uint64_t bytes, int urgency = 4) const {
    const auto result = Client(daemon_).purge(
        {{KELVANE_VOLUME, volume_.path()}, {KELVANE_AMOUNT, bytes}, {KELVANE_URGENCY, urgency}});
    return result ? (*result)[KELVANE_AMOUNT].unsignedLongLongValue() : 0;
  }

  const Volume volume_{32};
  const std::string folder_ = volume_.fill("cache", 16, mebibyte);
  Daemon daemon_;
};

TEST_P(ExampleService, OutlivesARestartOfTheDaemon) {
  const auto service = start();
  for (std::size_t restart = 1; restart <= 3; ++restart) {
    daemon_.restart(restart == 2 ? SIGKILL : SIGTERM);
    ASSERT_TRUE(daemon_.isReady());
    const auto began = std::chrono::steady_clock::now();
    ASSERT_TRUE(service->printed("registered", restart + 1)) << service->output();
    const auto took = std::chrono::steady_clock::now() - began;
    RecordProperty("milliseconds_until_registered_" + std::to_string(restart),
                   static_cast<int>(took / std::chrono::milliseconds(1)));
    EXPECT_EQ(purged(mebibyte), mebibyte) << service->output();
  }
}

TEST_P(ExampleService, IsDroppedWhenItIsKilledAndBackWhenItIsStartedAgain) {
  for (int i = 0; i < 3; ++i) {
    const auto service = start();
    EXPECT_EQ(purged(mebibyte), mebibyte);
    service->signal(SIGKILL);
    service->wait();
    ASSERT_TRUE(daemon_.process().printed("interruptionHandler ENTRY", static_cast<std::size_t>(i + 1)));
    EXPECT_EQ(purged(mebibyte), 0U);
  }
}

TEST_P(ExampleService, ThatIsStoppedForAWhileAnswersWhenItGoesOn) {
  const auto service = start();
  service->signal(SIGSTOP);
  Client client(daemon_);
  client.startPurge({{KELVANE_VOLUME, volume_.path()}, {KELVANE_AMOUNT, mebibyte}, {KELVANE_URGENCY, 4}});
  ASSERT_TRUE(daemon_.logged("requesting 1048576 bytes from com.example.cache"))
      << daemon_.process().output();
  service->signal(SIGCONT);
  const auto result = client.finishPurge();
  ASSERT_TRUE(result);
  EXPECT_EQ((*result)[KELVANE_AMOUNT].unsignedLongLongValue(), mebibyte);
}

TEST_P(ExampleService, GivesNothingYoungerThanAnHourUnlessItIsTold) {
  {
    const auto service = start(command(folder_, {}));
    EXPECT_EQ(purged(mebibyte), 0U);
  }
  ASSERT_TRUE(daemon_.process().printed("interruptionHandler ENTRY"));
  const auto service = start(command(folder_, {"--youngest", "0"}));
  EXPECT_EQ(purged(mebibyte, 3), 0U) << "at urgency 3 a file must be a week old";
  EXPECT_EQ(purged(mebibyte, 4), mebibyte);
}

TEST_P(ExampleService, AnswersZeroWhileItsDirectoryIsAwayAndGivesAgainWhenItIsBack) {
  const auto service = start();
  const std::string away = volume_.path() + "/away";
  std::filesystem::rename(folder_, away);
  EXPECT_EQ(purged(mebibyte), 0U);
  std::filesystem::create_directory_symlink(away, folder_);
  EXPECT_EQ(purged(mebibyte), 0U) << "through a link";
  std::filesystem::remove(folder_);
  std::filesystem::rename(away, folder_);
  EXPECT_EQ(purged(mebibyte), mebibyte);
}

TEST_P(ExampleService, SaysWhyItCannotServe) {
  const Finished nowhere = run(command("/nothing"));
  EXPECT_NE(nowhere.status, 0);
  EXPECT_NE(nowhere.output.find("/nothing"), std::string::npos) << nowhere.output;
  std::vector<std::string> without_daemon = command(folder_);
  std::replace(without_daemon.begin(), without_daemon.end(), daemon_.socket(),
               volume_.path() + "/nobody.sock");
  Process waiting(without_daemon);
  EXPECT_TRUE(waiting.printed("waiting: no")) << waiting.output();
  EXPECT_TRUE(waiting.printed(volume_.path() + "/nobody.sock")) << waiting.output();
}

std::string languageOf(const testing::TestParamInfo<const char*>& info) { return info.param; }
INSTANTIATE_TEST_SUITE_P(Examples, ExampleService, testing::Values("cpp", "python"), languageOf);

}  // namespace
}  // namespace kelvane::tests
