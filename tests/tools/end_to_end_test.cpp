// The real program against a real daemon, on a real volume, and with nobody there.

#include <gmock/gmock.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>

#include "platform/foundation/file_descriptor.h"
#include "tests/system/services.h"
#include "tests/tools/screens.h"
#include "tools/amount.h"
#include "tools/json.h"

namespace kelvane::tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

constexpr std::uint64_t mebibyte = 1 << 20;

/// Without the screen's width and colours of whoever runs the tests.
std::vector<std::string> environment() { return {"COLUMNS=80", "NO_COLOR=", "LC_ALL=C.UTF-8", "TERM=xterm"}; }

Finished ctl(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), built("kelvanectl"));
  return run(std::move(arguments), environment());
}
Finished ctl(const Daemon& daemon, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"--daemon", daemon.socket()});
  return ctl(std::move(arguments));
}

/// The program on a terminal of its own.
class OnTerminal {
 public:
  OnTerminal(const Daemon& daemon, std::vector<std::string> arguments, unsigned width = 80) {
    arguments.insert(arguments.begin(), {built("kelvanectl"), "--daemon", daemon.socket()});
    winsize size{24, static_cast<unsigned short>(width), 0, 0};
    int master = -1;
    id_ = ::forkpty(&master, nullptr, nullptr, &size);
    if (id_ == 0) {
      std::vector<char*> words;
      for (std::string& argument : arguments) words.push_back(argument.data());
      words.push_back(nullptr);
      ::unsetenv("COLUMNS");
      ::unsetenv("NO_COLOR");
      ::setenv("TERM", "xterm", 1);
      ::setenv("LC_ALL", "C.UTF-8", 1);
      ::execv(words[0], words.data());
      ::_exit(127);
    }
    terminal_ = FileDescriptor(master);
  }
  ~OnTerminal() {
    if (id_ > 0) ::kill(id_, SIGKILL);
    static_cast<void>(finish());
  }
  OnTerminal(const OnTerminal&) = delete;
  OnTerminal& operator=(const OnTerminal&) = delete;

  /// Reads until it has printed the text; false when it ended, or said nothing for half a minute, before
  /// that.
  bool printed(const std::string& text) {
    while (printed_.find(text) == std::string::npos) {
      if (!readMore()) return false;
    }
    return true;
  }
  void type(const std::string& keys) const {
    EXPECT_EQ(::write(terminal_.get(), keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  /// Reads to its end; its exit code.
  int finish() {
    while (readMore()) {
    }
    if (id_ > 0) ::waitpid(id_, &status_, 0);
    id_ = -1;
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
  }
  [[nodiscard]] const std::string& all() const { return printed_; }

 private:
  bool readMore() {
    pollfd waiting{terminal_.get(), POLLIN, 0};
    std::array<char, 4096> buffer{};
    if (::poll(&waiting, 1, 30'000) != 1) return false;
    const ssize_t length = ::read(terminal_.get(), buffer.data(), buffer.size());
    if (length <= 0) return false;  // EIO when the program has ended
    printed_.append(buffer.data(), static_cast<std::size_t>(length));
    return true;
  }

  pid_t id_ = -1;
  int status_ = 0;
  FileDescriptor terminal_;
  std::string printed_;
};

void expectMatchesSchema(const std::string& json) {
  const Folder folder;
  writeFile(folder.path() + "/output.json", json);
  const Finished checked = run({"python3", "-c",
                                "import json, sys, jsonschema\n"
                                "schema, output = (json.load(open(name)) for name in sys.argv[1:])\n"
                                "jsonschema.Draft202012Validator.check_schema(schema)\n"
                                "jsonschema.validate(output, schema)",
                                std::string(KELVANE_SOURCE_FOLDER) + "/docs/kelvanectl.schema.json",
                                folder.path() + "/output.json"});
  EXPECT_EQ(checked.status, 0) << checked.output << json;
}

TEST(Kelvanectl, ShowsPurgesAndMeasuresOnARealVolume) {
  const Volume volume(64);
  Daemon daemon;
  const auto first = startService(daemon, "deletes", "com.example.first", volume.fill("first", 24, mebibyte));
  const auto second =
      startService(daemon, "deletes", "com.example.second", volume.fill("second", 8, mebibyte));

  const Finished status = ctl(daemon, {"status"});
  EXPECT_EQ(status.status, 0);
  EXPECT_THAT(status.output, AllOf(HasSubstr("reachable at " + daemon.socket().substr(0, 10)),
                                   HasSubstr(", idle"), HasSubstr("32.0 MiB    64.0 MiB  ok")));

  const Finished purgeable = ctl(daemon, {"purgeable", volume.path() + "/first/3"});
  EXPECT_EQ(purgeable.status, 0);
  EXPECT_THAT(purgeable.output,
              AllOf(HasSubstr(volume.path() + "\n"), HasSubstr("com.example.first"),
                    HasSubstr("  24.0 MiB  "), HasSubstr("  now\n"), HasSubstr("  32.0 MiB\n")));
  EXPECT_LT(purgeable.output.find("com.example.first"), purgeable.output.find("com.example.second"));

  const std::uint64_t before = volume.freeSpace();
  const Finished purge = ctl(daemon, {"purge", volume.path() + "/second", "12M"});
  EXPECT_EQ(purge.status, 0) << purge.output;
  const std::uint64_t gained = volume.freeSpace() - before;
  EXPECT_GE(gained, 12 * mebibyte);  // more when a service is asked again before all have answered
  EXPECT_THAT(purge.output, AllOf(HasSubstr("Asked       12.0 MiB\n"),
                                  HasSubstr("Claimed     " + tools::inUnits(gained) + "  "),
                                  HasSubstr("Measured    " + tools::inUnits(gained) + "  "),
                                  HasSubstr("All that was asked for was freed.")));
  EXPECT_THAT(purge.output, Not(HasSubstr("\033"))) << "it is no terminal";

  const Finished short_of = ctl(daemon, {"purge", volume.path(), "1G"});
  EXPECT_EQ(short_of.status, 1) << short_of.output;
  EXPECT_THAT(short_of.output, HasSubstr("less than asked were freed."));
}

TEST(Kelvanectl, SpeaksJsonThatMatchesItsSchema) {
  const Volume volume(32);
  Daemon daemon;
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 8, mebibyte));
  const std::vector<std::pair<std::vector<std::string>, int>> commands = {
      {{"--json", "status"}, 0},
      {{"purgeable", "--json", volume.path()}, 0},
      {{"--json", "purge", volume.path(), "2M"}, 0},
      {{"--json", "purge", volume.path(), "2G", "--urgency", "1"}, 1},
  };
  for (const auto& [arguments, code] : commands) {
    const Finished finished = ctl(daemon, arguments);
    EXPECT_EQ(finished.status, code) << finished.output;
    expectMatchesSchema(finished.output);
  }
}

TEST(Kelvanectl, SaysInJsonWhatWasMeasured) {
  const Volume volume(32);
  Daemon daemon;
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 8, mebibyte));
  const auto purged = tools::readJson(ctl(daemon, {"--json", "purge", volume.path(), "1M"}).output);
  ASSERT_TRUE(purged.valid);
  EXPECT_EQ((*purged.value.dictionary())["measured_bytes"], Value(mebibyte));
}

TEST(Kelvanectl, ShowsTheDaemonsOwnThresholds) {
  const Volume volume(32);
  Daemon daemon(built("kelvaned"), {"KELVANE_VERY_LOW_SPACE=0%"});
  const auto status = tools::readJson(ctl(daemon, {"--json", "status"}).output);
  ASSERT_TRUE(status.valid);
  EXPECT_EQ((*status.value.dictionary())["thresholds_of"], Value("daemon"));
  for (const Value& entry : *(*status.value.dictionary())["volumes"].array())
    EXPECT_EQ((*entry.dictionary())["low_below_bytes"], Value(0)) << "the daemon was told 0%";
}

TEST(Kelvanectl, ShowsProgressOnATerminalOfAnyWidth) {
  const Volume volume(32);
  Daemon daemon;
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 8, mebibyte));
  const auto silent = startService(daemon, "silent", "com.example.silent", volume.path());
  for (const unsigned width : {40U, 80U}) {
    OnTerminal purge(daemon, {"purge", volume.path(), "64M", "--pass-seconds", "1", "--urgency", "1"}, width);
    EXPECT_TRUE(purge.printed("of 64.0 MiB,")) << purge.all();
    EXPECT_EQ(purge.finish(), 1);
    EXPECT_THAT(purge.all(), AllOf(HasSubstr("\r\033[K"), HasSubstr("\033[33m"), HasSubstr("no answer")));
    const std::string result = purge.all().substr(purge.all().rfind("\033[K") + 3);
    std::string lines;
    for (const char c : result) lines += c == '\r' ? "" : std::string(1, c);
    expectFits(lines, coloured(width));
  }
}

TEST(Kelvanectl, CancelsThePurgeOnCtrlCAndSaysWhatWasFreed) {
  const Volume volume(32);
  Daemon daemon;
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 8, mebibyte));
  const auto silent = startService(daemon, "silent", "com.example.silent", volume.path());
  OnTerminal purge(daemon, {"purge", volume.path(), "16M", "--pass-seconds", "2", "--urgency", "1"});
  ASSERT_TRUE(purge.printed("8.0 MiB of 16.0 MiB,")) << purge.all();
  purge.type("\x03");
  EXPECT_EQ(purge.finish(), 130);
  EXPECT_THAT(purge.all(), HasSubstr("Cancelled; 8.0 MiB were freed until then."));
  EXPECT_TRUE(Client(daemon).isServed());
}

TEST(Kelvanectl, DoesNotWaitLongForAPurgeThatCannotBeCancelled) {
  const Volume volume(32);
  Daemon daemon;
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 8, mebibyte));
  const auto silent = startService(daemon, "silent", "com.example.silent", volume.path());
  OnTerminal purge(daemon, {"purge", volume.path(), "16M", "--pass-seconds", "300"});
  ASSERT_TRUE(purge.printed("8.0 MiB of 16.0 MiB,")) << purge.all();
  purge.type("\x03");
  EXPECT_EQ(purge.finish(), 130);
  EXPECT_THAT(purge.all(), HasSubstr("asked to cancel the purge and has not ended it yet; the volume has "
                                     "gained 8.0 MiB since it began"));
}

TEST(Kelvanectl, SaysWhenTheDaemonStopsMidway) {
  const Volume volume(32);
  Daemon daemon;
  const auto service =
      startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 8, mebibyte));
  const auto silent = startService(daemon, "silent", "com.example.silent", volume.path());
  OnTerminal purge(daemon, {"purge", volume.path(), "16M", "--pass-seconds", "300"});
  ASSERT_TRUE(purge.printed("8.0 MiB of 16.0 MiB,")) << purge.all();
  daemon.process().signal(SIGKILL);
  EXPECT_EQ(purge.finish(), 5);
  EXPECT_THAT(purge.all(), HasSubstr("the volume has gained 8.0 MiB since the purge began"));
}

TEST(Kelvanectl, SaysInOneLineThatADaemonIsSilent) {
  Daemon daemon;
  daemon.process().signal(SIGSTOP);
  const Finished status = ctl(daemon, {"status"});
  daemon.process().signal(SIGCONT);
  EXPECT_EQ(status.status, 5);
  EXPECT_THAT(status.output,
              HasSubstr("kelvanectl: the daemon does not answer; `journalctl -u kelvane` may say why"));
}

TEST(Kelvanectl, SaysWhenThereIsNoRight) {
  const Volume volume(8);
  Daemon daemon(built("kelvaned"), {});
  const std::string command = "setpriv --reuid=65534 --regid=65534 --clear-groups " + built("kelvanectl") +
                              " --daemon " + daemon.socket() + " purgeable " + volume.path();
  std::filesystem::permissions(std::filesystem::path(daemon.runtimeFolder()).parent_path(),
                               std::filesystem::perms(0755));
  const Finished refused = run({"sh", "-c", command}, environment());
  EXPECT_EQ(refused.status, 3) << refused.output;
  EXPECT_THAT(refused.output,
              MatchesRegex("kelvanectl: the daemon does not accept .*; ask as root or as a member "
                           "of the group kelvane\n"));
}

TEST(Kelvanectl, KeepsReadsAndRemovesState) {
  Daemon daemon;
  EXPECT_EQ(ctl(daemon, {"state", "get", "colour"}).output, "null\n");
  EXPECT_EQ(ctl(daemon, {"state", "get", "colour"}).status, 1);
  EXPECT_EQ(ctl(daemon, {"state", "set", "colour", "[\"green\", -1]"}).status, 0);
  EXPECT_EQ(ctl(daemon, {"state", "get", "colour"}).output, "[\n  \"green\",\n  -1\n]\n");
  EXPECT_EQ(ctl(daemon, {"state", "delete", "colour"}).status, 0);
  EXPECT_EQ(ctl(daemon, {"state", "get", "colour"}).status, 1);
  const Finished wrong = ctl(daemon, {"state", "set", "colour", "green"});
  EXPECT_EQ(wrong.status, 2);
  EXPECT_EQ(wrong.output, "kelvanectl: \"green\" is no JSON; a text is quoted, as in '\"text\"'\n");
}

TEST(Kelvanectl, ShowsWhatTheDaemonCounted) {
  const Folder folder;
  EXPECT_EQ(ctl({"--daemon", folder.path() + "/kelvane.sock", "stats"}).status, 6);
  writeFile(folder.path() + "/metrics.prom",
            "kelvane_reports_total{domain=\"d\",key=\"KelvanePurgeFailed\"} 3\n");
  const Finished stats = ctl({"--daemon", folder.path() + "/kelvane.sock", "stats"});
  EXPECT_EQ(stats.status, 0);
  EXPECT_THAT(stats.output, testing::ContainsRegex("KelvanePurgeFailed +3\n"));
  expectMatchesSchema(ctl({"--daemon", folder.path() + "/kelvane.sock", "--json", "stats"}).output);
}

TEST(Kelvanectl, RunsActivitiesAndPostsEvents) {
  Daemon daemon;
  EXPECT_EQ(ctl(daemon, {"activity", "run", "com.orvel.Kelvane.daily"}).status, 0);
  const Finished posted = ctl(daemon, {"events", "post", "com.orvel.dispatch.vfs", "{\"_Flags\": 4}"});
  EXPECT_EQ(posted.status, 0) << posted.output;
  EXPECT_TRUE(daemon.logged("handleVFSStreamXPCEvent:"));
  const Finished unknown = ctl(daemon, {"activity", "run", "nothing"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_EQ(unknown.output, "kelvanectl: the daemon says: no activity is registered as \"nothing\"\n");
  EXPECT_EQ(ctl(daemon, {"events", "post", "com.orvel.dispatch.vfs", "[1]"}).status, 2);
  EXPECT_EQ(ctl({"--daemon", "/nowhere/kelvane.sock", "activity", "run", "any"}).status, 4);
}

TEST(Kelvanectl, LetsOnlyRootStartWhatRunsInTheDaemon) {
  Daemon daemon;
  std::filesystem::permissions(std::filesystem::path(daemon.runtimeFolder()).parent_path(),
                               std::filesystem::perms(0755));
  const Finished refused =
      run({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", built("kelvanectl"), "--daemon",
           daemon.socket(), "activity", "run", "com.orvel.Kelvane.daily"},
          environment());
  EXPECT_EQ(refused.status, 3) << refused.output;
}

TEST(Kelvanectl, ChecksFilesAndShowsDeclaredServices) {
  const Folder folder;
  writeFile(folder.path() + "/a.plist", propertyList("<key>KELVANE_ID</key><integer>1</integer>"));
  const Finished faulty = ctl({"check", folder.path() + "/a.plist"});
  EXPECT_EQ(faulty.status, 1);
  EXPECT_EQ(faulty.output, folder.path() + "/a.plist:2: KELVANE_ID is not a string\n");
  writeFile(std::string(system_descriptors) + "/maps.plist",
            propertyList("<key>KELVANE_ID</key><string>com.example.maps</string>"));
  const Finished services = ctl({"services"});
  EXPECT_EQ(services.status, 0);
  EXPECT_THAT(services.output, HasSubstr("com.example.maps\n  /System/Library/Kelvane/maps.plist\n"));
  expectMatchesSchema(ctl({"--json", "services"}).output);
  expectMatchesSchema(ctl({"--json", "check", folder.path() + "/a.plist"}).output);
  std::filesystem::remove(std::string(system_descriptors) + "/maps.plist");
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
      {"purge / 5M --urgency 5", 2, "not in range 1 to 4"},
      {"purge / 5M --urgency x", 2, "urgency"},
      {"purge /", 2, "amount is required"},
      {"purge", 2, "volume is required"},
      {"purge /nowhere 5M", 2, "\"/nowhere\": No such file or directory; name a volume"},
      {"purge /proc/self 5M", 2, "is no volume that the daemon serves"},
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

TEST(Kelvanectl, EndsQuietlyWhenNobodyReads) {
  const Finished finished =
      run({"bash", "-c",
           "trap '' PIPE; " + built("kelvanectl") + " --help | true; echo \"status ${PIPESTATUS[0]}\"; " +
               built("kelvanectl") + " --help | head -n 1"},
          environment());
  EXPECT_THAT(finished.output, MatchesRegex("status (0|141)\n[^\n]*\n"));
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
