// The live view as a job of a shell: stopped, resumed, ended while it is stopped.

#include "tests/tools/watching.h"

namespace kelvane::tests {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

using WatchAsAJob = Watching;

/// The shell takes the job as stopped until it has noticed that it went on, and may forget how it ended.
const std::string ended_by_kill =
    "kill %1; until wait %1; s=$?; [ $s != 148 ] || [ $SECONDS -gt 50 ]; do :; done; [ $s = 148 ] || echo "
    "its end";
const std::vector<std::string> watch_for_long = {"watch", "--interval", "3600"};

TEST_F(WatchAsAJob, GivesTheTerminalBackWhileItIsStopped) {
  OnTerminal watch(daemon, watch_for_long, "\"$@\"; echo stopped $?; read -r; fg; echo status $?");
  ASSERT_TRUE(showed(watch, "idle")) << watch.all();
  watch.type("\x1a");
  ASSERT_TRUE(watch.printed("stopped 148")) << watch.all();
  EXPECT_THAT(watch.all(), HasSubstr(restored));
  EXPECT_EQ(watch.mode().c_lflag & (ICANON | ECHO), tcflag_t{ICANON | ECHO});
  watch.type("\n");
  EXPECT_TRUE(watch.printedAnew("\033[?1049h") && showed(watch, "idle")) << watch.all();
  watch.type("q");
  EXPECT_TRUE(watch.printed("status 0")) << watch.all();
}

TEST_F(WatchAsAJob, EndsByAKillWhileItIsStopped) {
  OnTerminal watch(daemon, watch_for_long, "\"$@\"; " + ended_by_kill);
  ASSERT_TRUE(showed(watch, "idle")) << watch.all();
  watch.type("\x1a");
  EXPECT_TRUE(watch.printed("its end")) << watch.all();
}

TEST_F(WatchAsAJob, StopsInTheBackgroundInsteadOfDrawing) {
  OnTerminal watch(daemon, watch_for_long, "\"$@\" & wait $!; echo stopped $?; " + ended_by_kill);
  EXPECT_TRUE(watch.printed("stopped 148")) << watch.all();
  EXPECT_TRUE(watch.printed("its end")) << watch.all();
  EXPECT_THAT(watch.all(), Not(HasSubstr("\033[?1049h")));
}

TEST_F(WatchAsAJob, StopsAgainWhenItIsResumedInTheBackground) {
  OnTerminal watch(daemon, watch_for_long, "\"$@\"; bg; wait %1; echo again $?; " + ended_by_kill);
  ASSERT_TRUE(showed(watch, "idle")) << watch.all();
  watch.type("\x1a");
  ASSERT_TRUE(watch.printed("again 148") && watch.printed("its end")) << watch.all();
  EXPECT_EQ(watch.all().find("\033[?1049h"), watch.all().rfind("\033[?1049h")) << "it was drawn once";
}

TEST_F(WatchAsAJob, GoesOnWhereNobodyCouldResumeIt) {
  OnTerminal watch(daemon, watch_for_long);  // the first of its terminal: there is no shell
  ASSERT_TRUE(showed(watch, "idle")) << watch.all();
  watch.type("\x1a");
  EXPECT_TRUE(watch.printed(restored)) << watch.all();
  EXPECT_TRUE(watch.printed([](const std::string& all) { return framesIn(all) == 2; })) << watch.all();
  EXPECT_THAT(lastFrame(watch.all()), HasSubstr("idle"));
  watch.type("q");
  EXPECT_EQ(watch.finish(), 0);
  EXPECT_THAT(watch.all(), EndsWith(restored));
}

}  // namespace
}  // namespace kelvane::tests
