// Where something is wrong: the real program says so in one line, and with the exit code that scripts rely
// on.

#include <algorithm>

#include "tests/system/services.h"
#include "tests/tools/program.h"

namespace kelvane::tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr std::uint64_t mebibyte = 1 << 20;

TEST(Kelvanectl, ShowsTheDaemonAsBusyWhileAPurgeIsUnderWay) {
  const Volume volume(32);
  Daemon daemon;
  const auto silent = startService(daemon, "silent", "com.example.silent", volume.path());
  EXPECT_TRUE(becomesIdle(daemon));
  const Process purge({built("kelvanectl"), "--daemon", daemon.socket(), "purge", volume.path(), "16M",
                       "--pass-seconds", "300"},
                      environment());
  ASSERT_TRUE(silent->printed("asked 1 "));
  EXPECT_THAT(ctl(daemon, {"status"}).output, HasSubstr(", busy (1 transaction)\n"));
  EXPECT_THAT(ctl(daemon, {"watch", "--count", "1", "--interval", "5"}).output,
              HasSubstr(", busy (1 transaction)\n"));
  EXPECT_THAT(ctl(daemon, {"--json", "status"}).output, HasSubstr("\"busy\": true"));
}

TEST(Kelvanectl, SaysInOneLineThatTheDaemonWasKilledMidwayThroughAPurge) {
  const Volume volume(32);
  Daemon daemon;
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 8, mebibyte));
  const auto silent = startService(daemon, "silent", "com.example.silent", volume.path());
  Process purge({built("kelvanectl"), "--daemon", daemon.socket(), "purge", volume.path(), "16M",
                 "--pass-seconds", "300"},
                environment());
  ASSERT_TRUE(silent->printed("asked 1 "));
  daemon.process().signal(SIGKILL);
  const int status = purge.wait();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 5);
  EXPECT_TRUE(purge.printed("kelvanectl: "));  // or else not all of it has been read yet
  EXPECT_THAT(purge.output(),
              MatchesRegex("kelvanectl: [^\n]*; the volume has gained [^\n]* since the purge began\n"));
}

/// What goes wrong without a daemon: the exit code, and what the one line on standard error says.
struct Fault {
  const char* arguments;
  int code;
  const char* says;
};

TEST(Kelvanectl, SaysInOneLineWhatIsWrongAndWhatToDo) {
  const std::vector<Fault> faults = {
      {"--daemon /nowhere/kelvane.sock status", 4,
       "no daemon listens on /nowhere/kelvane.sock; start it with"},
      {"--daemon /nowhere/kelvane.sock purgeable /", 4, "no daemon listens"},
      {"--daemon /nowhere/kelvane.sock purge / 5M", 4, "no daemon listens"},
      {"purge / 5X", 2, "\"5X\" is no amount: \"X\" is no unit; say it as in 500M"},
      {"purge / -1", 2, "\"-1\" is no amount"},
      {"purge / 1e999", 2, "\"1e999\" is no amount"},
      {"purge / 0", 2, "less than one byte"},
      {"purge / --json -1", 2, "\"-1\" is no amount"},
      {"purge / -- -5M", 2, "\"-5M\" is no amount"},
      {"purge / 5M --pass-seconds -1", 2, "--pass-seconds: \"-1\" is less than it can be"},
      {"watch --interval 0", 2, "\"0\" is no number of seconds from 0.1 to 3600; say it as in 2 or 0.5"},
      {"watch --interval -1", 2, "--interval: \"-1\" is less than it can be"},
      {"watch --interval=-1", 2, "\"-1\" is no number of seconds"},
      {"watch --interval x", 2, "\"x\" is no number of seconds"},
      {"watch --interval 1e999", 2, "\"1e999\" is no number of seconds"},
      {"watch --interval", 2, "--interval"},
      {"watch --count 0", 2, "--count"},
      {"watch --count -1", 2, "--count: \"-1\" is less than it can be"},
      {"watch --count x", 2, "--count"},
      {"purge / 5M --urgency 5", 2, "not in range 1 to 4"},
      {"purge / 5M --urgency x", 2, "urgency"},
      {"purge /", 2, "amount is required"},
      {"purge", 2, "volume is required"},
      {"purge /nowhere 5M", 2,
       "\"/nowhere\": No such file or directory; expected a volume or a path inside one"},
      {"purge /proc/self 5M", 2, "is not a volume that the daemon serves"},
      {"frobnicate", 2, "there is no command \"frobnicate\""},
      {"status --frobnicate", 2, "--frobnicate"},
      {"", 2, "subcommand is required"},
      {"--daemon", 2, "--daemon"},
  };
  for (const Fault& fault : faults) {
    const Finished finished =
        run({"sh", "-c", built("kelvanectl") + " " + fault.arguments + " 2>&1 >/dev/null"}, environment());
    EXPECT_EQ(finished.status, fault.code) << fault.arguments;
    EXPECT_THAT(finished.output, AllOf(testing::StartsWith("kelvanectl: "), HasSubstr(fault.says)))
        << fault.arguments;
    EXPECT_EQ(std::count(finished.output.begin(), finished.output.end(), '\n'), 1) << finished.output;
  }
}

TEST(Kelvanectl, EndsWithoutAWordWhenNobodyReads) {
  const Volume volume(8);
  Daemon daemon;
  const std::vector<std::vector<std::string>> commands = {
      {"status"},
      {"--json", "status"},
      {"purgeable", volume.path()},
      {"purge", volume.path(), "1M"},
      {"services"},
      {"state", "get", "colour"},
      {"--help"},
      {"check", "/nowhere"},
      {"watch"},
      {"watch", "--json"},
  };
  for (const std::vector<std::string>& arguments : commands) {
    // The reader is gone before the program begins, and whoever starts it ignores the signal.
    std::vector<std::string> command = {
        "bash",
        "-c",
        "trap '' PIPE; exec 3> >(exec true); wait $!; \"$@\" >&3; echo \"status $?\"",
        "shell",
        built("kelvanectl"),
        "--daemon",
        daemon.socket()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    EXPECT_EQ(run(command, environment()).output, "status 141\n") << arguments.front();
  }
}

TEST(Kelvanectl, EndsBySigtermWhileNobodyTakesWhatItPrints) {
  Daemon daemon;
  const Folder folder;
  // Its first line is taken, and then nothing more.
  const std::string script =
      "mkfifo pipe; exec 3<>pipe; \"$@\" >&3 & read -r -n 1 <&3; kill $!; wait $!; echo \"status $?\"";
  const Finished finished =
      run({"sh", "-c", "cd " + folder.path() + " && exec bash -c '" + script + "' shell \"$@\"", "shell",
           built("kelvanectl"), "--daemon", daemon.socket(), "watch", "--json", "--interval", "0.1"},
          environment());
  EXPECT_THAT(finished.output, testing::EndsWith("status 143\n"));
}

TEST(Kelvanectl, SaysWhenItsOutputCannotBeWritten) {
  Daemon daemon;
  const Finished finished =
      run({"sh", "-c", built("kelvanectl") + " --daemon " + daemon.socket() + " status >/dev/full"},
          environment());
  EXPECT_EQ(finished.status, 6);
  EXPECT_EQ(finished.output, "kelvanectl: standard output: No space left on device\n");
}

}  // namespace
}  // namespace kelvane::tests
