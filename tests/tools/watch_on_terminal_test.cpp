// The live view and the other screens of the real program on a pseudo-terminal, against a real daemon.

#include <filesystem>
#include <sstream>

#include "tests/system/services.h"
#include "tests/tools/program.h"
#include "tests/tools/screens.h"

namespace kelvane::tests {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

constexpr std::uint64_t mebibyte = 1 << 20;
const std::string restored = "\033[?7h\033[?25h\033[?1049l";

std::string without(std::string text, const std::string& what) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos;) text.erase(at, what.size());
  return text;
}

/// The last view that was drawn whole, without what places it.
std::string lastFrame(const std::string& printed) {
  const std::size_t end = printed.rfind("\033[J");
  const std::size_t begin = printed.rfind("\033[H", end);
  if (end == std::string::npos || begin == std::string::npos) return {};
  return without(without(printed.substr(begin + 3, end - begin - 3), "\033[K"), "\r");
}

struct Watching : testing::Test {
  Watching() : volume(32) {
    service = startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 8, mebibyte));
  }
  const Volume volume;
  Daemon daemon;
  std::unique_ptr<Process> service;
};

TEST_F(Watching, DrawsAViewThatFitsWithAndWithoutColours) {
  for (const unsigned width : {40U, 80U}) {
    for (const char* const no_color : {"", "1"}) {
      OnTerminal watch(daemon, {"watch", "--interval", "0.1"}, width, no_color);
      ASSERT_TRUE(watch.printed("Purges") && watch.printedAnew("Purges") && watch.printed("\033[J"))
          << watch.all();
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

TEST_F(Watching, GivesTheTerminalBackWhileItIsStopped) {
  OnTerminal watch(daemon, {"watch", "--interval", "3600"});
  ASSERT_TRUE(watch.printed("Purges"));
  watch.type("\x1a");
  ASSERT_TRUE(watch.printed(restored));
  int status = 0;
  ASSERT_EQ(::waitpid(watch.id(), &status, WUNTRACED), watch.id());
  EXPECT_TRUE(WIFSTOPPED(status));
  EXPECT_EQ(watch.mode().c_lflag & ICANON, tcflag_t{ICANON});
  ::kill(watch.id(), SIGCONT);
  EXPECT_TRUE(watch.printedAnew("Purges"));
  watch.type("q");
  EXPECT_EQ(watch.finish(), 0);
}

TEST_F(Watching, EndsWhenTheTerminalIsClosed) {
  OnTerminal watch(daemon, {"watch", "--interval", "3600"});
  ASSERT_TRUE(watch.printed("Purges"));
  EXPECT_EQ(watch.hangUp(), 130);
}

TEST_F(Watching, IsDrawnAnewWhenTheWindowChangesItsSize) {
  OnTerminal watch(daemon, {"watch", "--interval", "3600"}, 80, "1");
  ASSERT_TRUE(watch.printed("reachable at "));
  ASSERT_TRUE(watch.printed("\033[J"));
  watch.resize(40, 30);
  EXPECT_TRUE(watch.printedAnew("reachable, idle\r\n") && watch.printed("\033[J")) << watch.all();
  watch.resize(40, 2);
  EXPECT_TRUE(watch.printedAnew("\033[J"));
  EXPECT_EQ(std::count(watch.all().begin(), watch.all().end(), '\n'), 1) << "two lines have room";
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
  watch.type("q");
  EXPECT_EQ(watch.finish(), 0);
  daemon.process().signal(SIGCONT);
}

TEST_F(Watching, PrintsABlockForEachLookWhereThereIsNoTerminal) {
  const Finished blocks = ctl(daemon, {"watch", "--count", "2", "--interval", "0.1"});
  EXPECT_EQ(blocks.status, 0);
  EXPECT_THAT(blocks.output, testing::MatchesRegex(
                                 "(20[0-9-]*T[0-9:]*Z\nDaemon     reachable at [^\n]*, idle\n\n([^\n]+\n)+\n"
                                 "Purges[^\n]*\n([^\n]+\n)+\n){2}"));
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

TEST(DeclaredService, IsShownAsEntitledOrNotByWhoRunsIt) {
  Daemon daemon;
  namespace fs = std::filesystem;
  fs::permissions(fs::path(daemon.runtimeFolder()).parent_path(), fs::perms(0755));
  fs::create_directories(daemon.runtimeFolder() + "/services");
  fs::permissions(daemon.runtimeFolder() + "/services", fs::perms(0777));
  const std::string socket = daemon.runtimeFolder() + "/services/com.example.maps";
  const std::string descriptor = std::string(system_descriptors) + "/maps.plist";
  writeFile(descriptor, propertyList("<key>KELVANE_ID</key><string>com.example.maps</string>"));
  EXPECT_THAT(ctl(daemon, {"services"}).output, HasSubstr("  entitled or not: unknown; it does not run\n"));
  std::vector<std::string> command = {
      built("service_program"), "deletes", "com.example.maps", "/", "--listen", socket};
  {
    Process service(command);
    ASSERT_TRUE(service.printed("registered")) << service.output();
    EXPECT_THAT(ctl(daemon, {"services"}).output, HasSubstr("  reachable\n  entitled (user 0)\n"));
    expectMatchesSchema(ctl(daemon, {"--json", "services"}).output);
  }
  fs::remove(socket);
  command.insert(command.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
  Process service(command);
  ASSERT_TRUE(service.printed("registered")) << service.output();
  EXPECT_THAT(ctl(daemon, {"services"}).output,
              HasSubstr("  reachable\n  not entitled: user 65534 lacks CLIENT_ENTITLEMENT\n"));
  fs::remove(descriptor);
}

}  // namespace
}  // namespace kelvane::tests
