// The live view as a job of a shell: stopped, resumed, ended while it is stopped.

#include "tests/tools/watching.h"

namespace kelvane::tests {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

using WatchAsAJob = Watching;

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
  OnTerminal watch(daemon, watch_for_long, "\"$@\"; kill %1; wait %1; echo status $?");
  ASSERT_TRUE(showed(watch, "idle")) << watch.all();
  watch.type("\x1a");
  EXPECT_TRUE(watch.printed("status 130")) << watch.all();
}

TEST_F(WatchAsAJob, StopsInTheBackgroundInsteadOfDrawing) {
  OnTerminal watch(daemon, watch_for_long,
                   "\"$@\" & wait $!; echo stopped $?; kill %1; wait %1; echo status $?");
  EXPECT_TRUE(watch.printed("stopped 148")) << watch.all();
  EXPECT_TRUE(watch.printed("status 130")) << watch.all();
  EXPECT_THAT(watch.all(), Not(HasSubstr("\033[?1049h")));
}

TEST_F(WatchAsAJob, StopsAgainWhenItIsResumedInTheBackground) {
  OnTerminal watch(daemon, watch_for_long,
                   "\"$@\"; bg; wait %1; echo again $?; kill %1; wait %1; echo status $?");
  ASSERT_TRUE(showed(watch, "idle")) << watch.all();
  watch.type("\x1a");
  ASSERT_TRUE(watch.printed("again 148") && watch.printed("status 130")) << watch.all();
  EXPECT_EQ(watch.all().find("\033[?1049h"), watch.all().rfind("\033[?1049h")) << "it was drawn once";
}

TEST_F(WatchAsAJob, GoesOnWhereNobodyCouldResumeIt) {
  OnTerminal watch(daemon, watch_for_long);  // the first of its terminal: there is no shell
  ASSERT_TRUE(showed(watch, "idle")) << watch.all();
  watch.type("\x1a");
  EXPECT_TRUE(watch.printed(restored)) << watch.all();
  EXPECT_TRUE(watch.printedAnew("\033[J")) << watch.all();
  EXPECT_THAT(lastFrame(watch.all()), HasSubstr("idle"));
  watch.type("q");
  EXPECT_EQ(watch.finish(), 0);
  EXPECT_THAT(watch.all(), EndsWith(restored));
}

}  // namespace
}  // namespace kelvane::tests
