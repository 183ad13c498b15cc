// The live view and the other screens of the real program on a pseudo-terminal, against a real daemon.

#include <sys/socket.h>
#include <sys/un.h>
#include <sstream>

#include "tests/tools/screens.h"
#include "tests/tools/watching.h"

namespace kelvane::tests {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

TEST_F(Watching, DrawsAViewThatFitsWithAndWithoutColours) {
  for (const unsigned width : {40U, 80U}) {
    for (const char* const no_color : {"", "1"}) {
      OnTerminal watch(daemon, {"watch", "--interval", "0.1"}, width, no_color);
      ASSERT_TRUE(showed(watch, "idle")) << watch.all();
      const std::string frame = lastFrame(watch.all());
      EXPECT_THAT(withoutColours(frame), AllOf(HasSubstr("every 0.1 s; q qui"), HasSubstr("idle"),
                                               HasSubstr("24.0 MiB"), HasSubstr("Change")));
      if (*no_color == '\0') {
        EXPECT_THAT(frame, HasSubstr("\033[32mreachable\033[0m"));
      } else {
        EXPECT_THAT(frame, Not(HasSubstr("\033")));
      }
      expectFits(frame, coloured(width));
      watch.type("q");
      EXPECT_EQ(watch.finish(), 0);
    }
  }
}

TEST_F(Watching, ShowsWhatAPurgeFreed) {
  OnTerminal watch(daemon, {"watch", "--interval", "0.1"}, 80, "1");
  ASSERT_TRUE(watch.printed("0 since the daemon's start, 0 fell short")) << watch.all();
  ASSERT_EQ(ctl(daemon, {"purge", volume.path(), "2M"}).status, 0);
  EXPECT_TRUE(watch.printed("+2.0 MiB")) << watch.all();
  EXPECT_TRUE(watch.printed("1 since the daemon's start, 0 fell short")) << watch.all();
  EXPECT_TRUE(watch.printed("  com.example.cache ")) << watch.all();
}

TEST_F(Watching, LeavesTheTerminalAsItWas) {
  constexpr tcflag_t changed = ICANON | ECHO;
  OnTerminal watch(daemon, {"watch", "--interval", "3600"});
  ASSERT_TRUE(watch.printed("Purges"));
  EXPECT_EQ(watch.mode().c_lflag & changed, 0U);
  watch.type("q");
  EXPECT_EQ(watch.finish(), 0);
  EXPECT_EQ(watch.mode().c_lflag & changed, changed);
  EXPECT_THAT(watch.all(), EndsWith(restored));

  OnTerminal cancelled(daemon, {"watch", "--interval", "3600"});
  ASSERT_TRUE(cancelled.printed("Purges"));
  cancelled.type("\x03");
  EXPECT_EQ(cancelled.finish(), 130);
  EXPECT_EQ(cancelled.mode().c_lflag & changed, changed);
  EXPECT_THAT(cancelled.all(), EndsWith(restored));
}

TEST_F(Watching, EndsWhenTheTerminalIsClosed) {
  OnTerminal watch(daemon, {"watch", "--interval", "3600"});
  ASSERT_TRUE(watch.printed("Purges"));
  EXPECT_EQ(watch.hangUp(), 130);
}

TEST_F(Watching, IsDrawnAnewWhenTheWindowChangesItsSize) {
  OnTerminal watch(daemon, {"watch", "--interval", "3600"}, 80, "1");
  ASSERT_TRUE(showed(watch, "reachable at "));
  watch.resize(40, 200);
  EXPECT_TRUE(showed(watch, "reachable, idle\n")) << watch.all();
  watch.resize(40, 2);
  EXPECT_TRUE(watch.printed([](const std::string& all) {
    const std::string frame = lastFrame(all);
    return std::count(frame.begin(), frame.end(), '\n') == 1;
  })) << "two lines have room";
}

TEST_F(Watching, OutlivesADaemonThatGoesAndComesBack) {
  OnTerminal watch(daemon, {"watch", "--interval", "0.1"}, 80, "1");
  ASSERT_TRUE(watch.printed("idle"));
  daemon.process().signal(SIGKILL);
  EXPECT_TRUE(watch.printedAnew("not reachable")) << watch.all();
  daemon.restart(SIGKILL);
  EXPECT_TRUE(watch.printedAnew("idle")) << watch.all();
  daemon.process().signal(SIGSTOP);
  EXPECT_TRUE(watch.printedAnew("the daemon does not answer")) << watch.all();
  daemon.process().signal(SIGCONT);
  EXPECT_TRUE(watch.printedAnew("idle")) << watch.all();
  watch.type("q");
  EXPECT_EQ(watch.finish(), 0);
}

TEST(WatchingASilentDaemon, AsksItOnceWhileTheVolumesAreLookedAtAgainAndAgain) {
  const Folder folder;
  sockaddr_un address{AF_UNIX, {}};
  const std::string socket = folder.path() + "/kelvane.sock";
  socket.copy(address.sun_path, sizeof address.sun_path - 1);
  const FileDescriptor silent(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::bind(silent.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(silent.get(), 100), 0);
  OnTerminal watch(socket, {"watch", "--interval", "0.1"});
  EXPECT_TRUE(watch.printed([](const std::string& all) { return framesIn(all) >= 5; })) << watch.all();
  watch.type("q");
  EXPECT_EQ(watch.finish(), 0);
  std::vector<FileDescriptor> asked;
  while (FileDescriptor connection{::accept(silent.get(), nullptr, nullptr)})
    asked.push_back(std::move(connection));
  EXPECT_EQ(asked.size(), 1U);
}

TEST_F(Watching, PrintsABlockForEachLookWhereThereIsNoTerminal) {
  const Finished block = ctl(daemon, {"watch", "--count", "1", "--interval", "5"});
  EXPECT_EQ(block.status, 0);
  EXPECT_THAT(block.output, testing::MatchesRegex(
                                "20[0-9-]*T[0-9:]*Z\nDaemon     reachable at [^\n]*, idle\n\n([^\n]+\n)+\n"
                                "Purges[^\n]*\n([^\n]+\n)+\n"));
  const Finished blocks = ctl(daemon, {"watch", "--count", "2", "--interval", "0.1"});
  EXPECT_EQ(blocks.status, 0);
  EXPECT_THAT(blocks.output, testing::MatchesRegex("(20[0-9-]*T[0-9:]*Z\nDaemon     ([^\n]+\n)+"
                                                   "(\n([^\n]+\n)+)+\n){2}"));
}

TEST_F(Watching, PrintsAnObjectALineInJson) {
  const Finished nobody = ctl({"--daemon", "/nowhere/kelvane.sock", "watch", "--json", "--count", "1"});
  EXPECT_EQ(nobody.status, 0) << "it waits for a daemon";
  expectMatchesSchema(nobody.output);
  const Finished looks = ctl(daemon, {"--json", "watch", "--count", "2", "--interval", "0.1"});
  EXPECT_EQ(looks.status, 0);
  std::istringstream lines(looks.output);
  std::size_t count = 0;
  for (std::string line; std::getline(lines, line); ++count) expectMatchesSchema(line);
  EXPECT_EQ(count, 2U);
}

TEST_F(Watching, TheOtherScreensFitTheirTerminalToo) {
  for (const unsigned width : {40U, 80U}) {
    for (const char* const no_color : {"", "1"}) {
      for (const std::vector<std::string>& arguments :
           {std::vector<std::string>{"status"}, std::vector<std::string>{"purgeable", volume.path()}}) {
        OnTerminal screen(daemon, arguments, width, no_color);
        EXPECT_EQ(screen.finish(), 0);
        const std::string shown = without(screen.all(), "\r");
        EXPECT_THAT(shown, HasSubstr(arguments.front() == "status" ? "24.0 MiB" : "8.0 MiB"));
        EXPECT_EQ(shown.find('\033') == std::string::npos, *no_color == '1') << shown;
        expectFits(shown, coloured(width));
      }
    }
  }
}

}  // namespace
}  // namespace kelvane::tests
