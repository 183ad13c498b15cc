#include "tools/screen.h"

#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include "platform/foundation/file_descriptor.h"
#include "tests/support/scoped_environment.h"
#include "tests/tools/screens.h"

namespace kelvane::tests {
namespace {

using tools::Colour;
using tools::drawn;
using tools::fitted;
using tools::printable;

TEST(PrintableText, HoldsNothingThatATerminalObeys) {
  const tools::Screen screen = coloured(80);
  EXPECT_EQ(printable(screen, "com.example.cache"), "com.example.cache");
  EXPECT_EQ(printable(screen, "\033[31mred\033[0m\r\n\t\a"), "?[31mred?[0m????");
  EXPECT_EQ(printable(screen,
                      "\xC2\x9B"
                      "2J"),
            "?2J");
  EXPECT_EQ(printable(screen, "a\u202Eb\u200Fc\u2066d"), "a?b?c?d");
  EXPECT_EQ(printable(screen, "a\xFF\xC3z\xED"), "a??z?");
  EXPECT_EQ(printable(screen, "größe"), "größe");
  EXPECT_EQ(printable(plain(80), "größe"), "gr??e");
  EXPECT_EQ(printable(screen, std::string_view("a\0b", 3)), "a?b");
}

TEST(FittedText, IsPaddedOrCutToItsColumns) {
  EXPECT_EQ(fitted(plain(80), "cache", 7), "cache  ");
  EXPECT_EQ(fitted(plain(80), "cache", 5), "cache");
  EXPECT_EQ(fitted(plain(80), "cache", 4), "cac~");
  EXPECT_EQ(fitted(coloured(80), "größe", 4), "grö…");
  EXPECT_EQ(fitted(plain(80), "cache", 0), "");
  EXPECT_EQ(tools::rightAligned("größe", 7), "  größe");
}

TEST(ABar, ShowsHowMuchAndTheMarks) {
  EXPECT_EQ(drawn(plain(80), {0.5}, 10), "#####.....");
  EXPECT_EQ(drawn(plain(80), {0.5, {0.2, 0.9}}, 10), "##|##....|");
  EXPECT_EQ(drawn(plain(80), {0.5, {1, 7}}, 10), "#####....|");
  EXPECT_EQ(drawn(coloured(80), {0.5, {}, Colour::red}, 4), "\033[31m██\033[0m░░");
}

TEST(ABar, IsFullOnlyWhenAllAndEmptyOnlyWhenNothingIsThere) {
  EXPECT_EQ(drawn(plain(80), {0}, 5), ".....");
  EXPECT_EQ(drawn(plain(80), {0.001}, 5), "#....");
  EXPECT_EQ(drawn(plain(80), {0.999}, 5), "####.");
  EXPECT_EQ(drawn(plain(80), {1}, 5), "#####");
  EXPECT_EQ(drawn(plain(80), {3}, 5), "#####");
  EXPECT_EQ(drawn(plain(80), {0.5}, 0), "");
}

struct Terminal {
  explicit Terminal(unsigned short columns) {
    winsize size{24, columns, 0, 0};
    int ends[2] = {-1, -1};
    EXPECT_EQ(::openpty(&ends[0], &ends[1], nullptr, nullptr, &size), 0);
    master = FileDescriptor(ends[0]);
    slave = FileDescriptor(ends[1]);
  }
  FileDescriptor master;
  FileDescriptor slave;
};

TEST(AScreen, IsAsWideAsItsTerminalWithinLimits) {
  const ScopedEnvironment no_columns("COLUMNS", std::nullopt);
  EXPECT_EQ(tools::screenOf(Terminal(100).slave.get()).width, 100U);
  EXPECT_EQ(tools::screenOf(Terminal(20).slave.get()).width, 40U);
  EXPECT_EQ(tools::screenOf(Terminal(400).slave.get()).width, 200U);
  EXPECT_EQ(tools::screenOf(Terminal(0).slave.get()).width, 80U);
}

TEST(AScreen, HasColoursOnATerminalOnlyAndNotAgainstNO_COLOR) {
  const ScopedEnvironment terminal_kind("TERM", "xterm");
  const Terminal terminal(80);
  int ends[2] = {-1, -1};
  ASSERT_EQ(::pipe(ends), 0);
  const FileDescriptor reading(ends[0]);
  const FileDescriptor writing(ends[1]);
  {
    const ScopedEnvironment unset("NO_COLOR", std::nullopt);
    EXPECT_TRUE(tools::screenOf(terminal.slave.get()).colour);
    EXPECT_FALSE(tools::screenOf(writing.get()).colour);
    EXPECT_FALSE(tools::screenOf(writing.get()).live);
  }
  const ScopedEnvironment set("NO_COLOR", "1");
  EXPECT_FALSE(tools::screenOf(terminal.slave.get()).colour);
  EXPECT_TRUE(tools::screenOf(terminal.slave.get()).live);
  const ScopedEnvironment dumb("TERM", "dumb");
  EXPECT_FALSE(tools::screenOf(terminal.slave.get()).live);
}

}  // namespace
}  // namespace kelvane::tests
