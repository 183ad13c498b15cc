#include "daemon/process.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <filesystem>
#include <vector>

#include "support/statistics.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/scoped_environment.h"

namespace kelvane {
namespace {

std::optional<int> answer(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "kelvaned");
  return answerCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

TEST(CommandLine, WithoutArgumentsTheDaemonIsToRun) { EXPECT_EQ(answer({}), std::nullopt); }

TEST(CommandLine, HelpNamesWhatIsReadFromTheEnvironment) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(answer({"--help"}), 0);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("RUNTIME_DIRECTORY"), std::string::npos);
}

TEST(CommandLine, VersionIsTheNameAndTheNumber) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(answer({"--version"}), 0);
  EXPECT_TRUE(testing::internal::GetCapturedStdout().starts_with("kelvaned 0."));
}

TEST(CommandLine, AnUnknownArgumentIsNamedInOneLineThatSaysWhatToDo) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(answer({"--foreground"}), 2);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "kelvaned: unexpected argument \"--foreground\"; run kelvaned --help to see what there is\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(answer({"--version", "now"}), 2);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("\"now\""), std::string::npos);
}

class Directories : public testing::Test {
 protected:
  static mode_t modeOf(const std::string& path) {
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0 ? found.st_mode & 07777 : 0;
  }
  const test::TemporaryDirectory directory_;
};

TEST_F(Directories, AreMadeWhereTheirParentExistsWhateverTheFileModeMask) {
  const tests::ScopedEnvironment runtime("RUNTIME_DIRECTORY", directory_ / "run");
  const tests::ScopedEnvironment state("STATE_DIRECTORY", directory_ / "state");
  const mode_t mask = ::umask(0077);
  EXPECT_EQ(makeDirectories(), std::nullopt);
  ::umask(mask);
  EXPECT_EQ(modeOf(directory_ / "run"), 0755u);
  EXPECT_EQ(modeOf(directory_ / "run/services"), 0755u);
  EXPECT_TRUE(std::filesystem::is_directory(directory_ / "state"));
  EXPECT_EQ(makeDirectories(), std::nullopt);  // and found again
}

TEST_F(Directories, WithoutTheParentOrWithAFileInTheWaySayWhichAndWhy) {
  const tests::ScopedEnvironment state("STATE_DIRECTORY", directory_ / "state");
  const tests::ScopedEnvironment runtime("RUNTIME_DIRECTORY", directory_ / "missing/run");
  EXPECT_EQ(makeDirectories(),
            "cannot create the directory " + directory_ / "missing/run" + ": No such file or directory");
  directory_.write("file", "");
  runtime.set(directory_ / "file");
  EXPECT_EQ(makeDirectories(), "cannot create the directory " + directory_ / "file" + ": File exists");
}

TEST_F(Directories, OfTheSettingsMayBeMissing) {
  const tests::ScopedEnvironment runtime("RUNTIME_DIRECTORY", directory_ / "run");
  const tests::ScopedEnvironment state("STATE_DIRECTORY", directory_ / "missing/state");
  EXPECT_EQ(makeDirectories(), std::nullopt);
}

TEST(RefusingToStart, IsOneLineAndStatusOne) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(refuseToStart("cannot serve /x: in use"), 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "kelvaned: cannot serve /x: in use\n");
}

TEST(Process, MayHaveAsManyDescriptorsAsItsHardLimitAllows) {
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  rlimit low = before;
  low.rlim_cur = 64;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  settleProcess();
  setStatisticsFile("");  // the other tests' statistics are not to be written
  rlimit after{};
  ::getrlimit(RLIMIT_NOFILE, &after);
  EXPECT_EQ(after.rlim_cur, before.rlim_max);
}

}  // namespace
}  // namespace kelvane
