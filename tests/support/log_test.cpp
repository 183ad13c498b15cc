#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>
#include <array>
#include <sstream>
#include <string>
#include <vector>

#include "platform/foundation/file_descriptor.h"
#include "platform/xpc/error.h"
#include "support/log.h"
#include "support/standard_log.h"
#include "tests/support/log_capture.h"

namespace kelvane::tests {
namespace {

template <class... Arguments>
std::string formatted(const char* text, const Arguments&... arguments) {
  return logging::format(text, {logging::argument(arguments)...});
}

/// What is written to standard error while this lives.
class StandardErrorCapture {
 public:
  StandardErrorCapture() : before_(::dup(STDERR_FILENO)) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) ADD_FAILURE() << "no pipe";
    read_ = FileDescriptor(ends[0]);
    ::dup2(ends[1], STDERR_FILENO);
    ::close(ends[1]);
  }
  ~StandardErrorCapture() { ::dup2(before_.get(), STDERR_FILENO); }

  std::string text() {
    std::array<char, 4096> bytes{};
    const ssize_t n = ::read(read_.get(), bytes.data(), bytes.size());
    return n > 0 ? std::string(bytes.data(), static_cast<std::size_t>(n)) : std::string();
  }

 private:
  FileDescriptor before_;
  FileDescriptor read_;
};

/// No log handle for as long as it lives.
class NoLogHandle {
 public:
  NoLogHandle() : before_(getLogHandle()) { setLogHandle(nullptr); }
  ~NoLogHandle() { setLogHandle(before_); }

 private:
  LogHandle* const before_;
};

std::string prefix(int level) {
  return "Kelvane[" + std::to_string(::getpid()) + "] <" + std::to_string(level) + "> ";
}

TEST(LogLevels, ALevelFiveLineNeedsAThresholdOfFive) {
  const LogCapture four(4);
  KVLog(5, "%s traced", "init");
  EXPECT_FALSE(four.contains("traced"));
  const LogCapture five(5);
  KVLog(5, "%s traced", "init");
  EXPECT_TRUE(five.contains(5, "init traced"));
}

TEST(LogLines, AreFormattedFromTheBeginningOfALongArgumentOnly) {
  const LogCapture log(5);
  KVLog(5, "%s key: %@ value: %@", "init", std::string(1'000'000, 'x'),
        Value(Array{std::string(50'000, 'y')}));
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_LT(log.lines().front().text.size(), 50'000U);
  EXPECT_TRUE(log.contains("xxx... (1000000 bytes) value: (\"yyy"));
}

TEST(LogLines, AnArgumentIsCutAfter24KiB) {
  const LogCapture log(5);
  KVLog(5, "%s", std::string(24'576, 'x'));
  KVLog(5, "%s", std::string(24'577, 'x'));
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].text, std::string(24'576, 'x'));
  EXPECT_EQ(lines[1].text, std::string(24'576, 'x') + "... (24577 bytes)");
}

TEST(LogLevels, ALevelThreeLineNeedsAThresholdOfThree) {
  const LogCapture two(2);
  KVLog(3, "%s failed", "init");
  EXPECT_TRUE(two.lines().empty());
  const LogCapture three(3);
  KVLog(3, "%s failed", "init");
  EXPECT_TRUE(three.contains(3, "init failed"));
}

TEST(LogLevels, WithoutAHandleALevelFiveLineIsWrittenToStandardError) {
  const NoLogHandle none;
  StandardErrorCapture standard_error;
  KVLog(5, "%s traced", "init");
  EXPECT_EQ(standard_error.text(), prefix(5) + "init traced\n");
}

TEST(LogLevels, WithoutAHandleALevelThreeLineIsNotWritten) {
  const NoLogHandle none;
  StandardErrorCapture standard_error;
  KVLog(3, "%s failed", "init");
  EXPECT_EQ(standard_error.text(), "");
}

TEST(LogLevels, ArgumentsOfALineThatIsNotWrittenAreNotEvaluated) {
  const LogCapture three(3);
  int evaluated = 0;
  KVLog(5, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  KVLog(3, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 1);
}

TEST(LogThreshold, IsADigitFromZeroToFive) {
  EXPECT_EQ(logThreshold("0"), 0);
  EXPECT_EQ(logThreshold("5"), 5);
  for (const char* bad : {"", "6", "-1", "33", "3 ", "three"}) EXPECT_FALSE(logThreshold(bad)) << bad;
}

TEST(LogFormat, FillsEveryKindOfPlaceholder) {
  EXPECT_EQ(formatted("%s %d %u %lld %llu %f %%", "a", -1, 2U, INT64_MIN, UINT64_MAX, 0.5),
            "a -1 2 -9223372036854775808 18446744073709551615 0.500000 %");
  EXPECT_EQ(formatted("timebaseInfo:  %u / %u, gTimebaseConversion: %f", 1U, 1U, 1.0),
            "timebaseInfo:  1 / 1, gTimebaseConversion: 1.000000");
}

TEST(LogFormat, PrintsAnObjectAsItsDescription) {
  EXPECT_EQ(formatted("%@", Value(Dictionary{{"KELVANE_AMOUNT", 5}})),
            Value(Dictionary{{"KELVANE_AMOUNT", 5}}).description());
  EXPECT_EQ(formatted("%@", Array{1, 2}), "(1, 2)");
  EXPECT_EQ(formatted("%@ %@", Value("plain"), std::string("text")), "plain text");
  EXPECT_EQ(formatted("%@ %@ %@", nullptr, Value(), std::optional<Dictionary>()), "(null) (null) (null)");
  EXPECT_EQ(formatted("%@", std::optional<Dictionary>(Dictionary{})), Value(Dictionary{}).description());
  EXPECT_EQ(formatted("%@", std::set<std::string>{"b", "a"}), "{(a, b)}");
  EXPECT_EQ(formatted("%@", std::vector<std::string>{"b", "a"}), "(b, a)");
  EXPECT_EQ(formatted("%@", xpc::Error{"name", "text"}), "name: text");
}

TEST(LogFormat, PrintsAddresses) {
  const int object = 0;
  const void* const nothing = nullptr;
  std::ostringstream address;
  address << static_cast<const void*>(&object);
  EXPECT_EQ(formatted("%p %p", static_cast<const void*>(&object), nothing), address.str() + " 0x0");
}

TEST(LogFormat, KeepsWidthAndPrecision) {
  EXPECT_EQ(formatted("[%4d] [%-4d] [%04d] [%.2f] [%5s]", 7, 7, 7, 1.0 / 3, "a"),
            "[   7] [7   ] [0007] [0.33] [    a]");
}

TEST(LogFormat, AnArgumentOfAnotherKindPrintsAsWhatItIs) {
  EXPECT_EQ(formatted("%d %d %u %f %p %s %@", "text", 1.5, "text", "text", 3, 4, 5.5),
            "text 1.5 text text 3 4 5.5");
  EXPECT_EQ(formatted("%f", 2), "2.000000");
}

TEST(LogFormat, SurvivesMissingArgumentsAndBrokenPlaceholders) {
  EXPECT_EQ(formatted("%s and %d", "one"), "one and (missing)");
  EXPECT_EQ(formatted("100%"), "100%");
  EXPECT_EQ(formatted("%ll", 1), "%");
  EXPECT_EQ(formatted("%99999999999999999999d", 1), "1");
  EXPECT_EQ(formatted("%y", 1), "1");
}

TEST(LogFormat, APlaceholderInAnArgumentIsNotOne) { EXPECT_EQ(formatted("%s %s", "%d", "b"), "%d b"); }

TEST(LogLines, ALineFeedAtTheEndIsNotDoubled) {
  const LogCapture log;
  KVLog(3, "%s Failed to get timebase info\n", "main");
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].text, "main Failed to get timebase info");
}

TEST(LogLines, AnArgumentCannotForgeALine) {
  const LogCapture log;
  KVLog(3, "%s name: %@", "notifyRecipients:value:", std::string("a\nKelvane[1] <3> forged\r\x1b[2J\t\x7f"));
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].text,
            "notifyRecipients:value: name: a\\nKelvane[1] <3> forged\\r\\x1b[2J\\t\\x7f");
}

TEST(StandardLog, WritesEachLineWithTagProcessAndLevel) {
  StandardErrorCapture standard_error;
  StandardLogHandle handle(5, StandardLogHandle::Sink::descriptor, STDERR_FILENO);
  handle.write(3, "one");
  handle.write(5, "two");
  EXPECT_EQ(standard_error.text(), prefix(3) + "one\n" + prefix(5) + "two\n");
}

TEST(StandardLog, CutsAVeryLongLineAndSaysSo) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  const FileDescriptor reading(ends[0]);
  const FileDescriptor writing(ends[1]);
  StandardLogHandle handle(5, StandardLogHandle::Sink::descriptor, writing.get());
  handle.write(3, std::string(40'000, 'x'));
  std::string text(60'000, '\0');
  const ssize_t n = ::read(reading.get(), text.data(), text.size());
  ASSERT_GT(n, 32'768);
  EXPECT_LT(n, 33'000);
  EXPECT_TRUE(std::string_view(text.data(), static_cast<std::size_t>(n)).ends_with("xxx... (40000 bytes)\n"));
}

}  // namespace
}  // namespace kelvane::tests
