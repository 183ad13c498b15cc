// Descriptors as a service manager passes them, each time to a child process.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/service_manager.h"

namespace kelvane::tests {
namespace {

using Names = std::vector<std::string>;

/// The environment of the process; without a PID, its own is used.
struct Passed {
  std::optional<std::string> process = {};
  std::optional<std::string> count = "2";
  std::optional<std::string> names = "one:two";
};

void set(const char* variable, const std::optional<std::string>& value) {
  if (value) {
    ::setenv(variable, value->c_str(), 1);
  } else {
    ::unsetenv(variable);
  }
}

/// What `test` returns in a process that has the descriptors 3 and 4, and 5 as one that it opened itself for
/// another purpose; nothing above.
int inProcess(const Passed& passed, const std::function<int()>& test) {
  const pid_t child = ::fork();
  if (child == 0) {
    for (const int descriptor : {3, 4, 5}) {
      const int file = ::open("/dev/null", O_RDONLY);
      if (file != descriptor) ::dup2(file, descriptor);
      ::fcntl(descriptor, F_SETFD, 0);
    }
    ::close_range(6, ~0U, 0);
    set("LISTEN_PID", passed.process.value_or(std::to_string(::getpid())));
    set("LISTEN_FDS", passed.count);
    set("LISTEN_FDNAMES", passed.names);
    ::_exit(test());
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Whether the process finds exactly these.
bool finds(const Passed& passed, const Names& names) {
  return inProcess(passed, [&] { return passedSocketNames() == names ? 1 : 0; }) == 1;
}

TEST(PassedSockets, ADescriptorIsFoundByItsName) {
  EXPECT_EQ(inProcess({}, [] { return takePassedSocket("two").release(); }), 4);
  EXPECT_EQ(inProcess({}, [] { return takePassedSocket("one").release(); }), 3);
  EXPECT_TRUE(finds({}, {"one", "two"}));
}

TEST(PassedSockets, ANameThatWasNotHandedOverIsNone) {
  EXPECT_EQ(inProcess({}, [] { return takePassedSocket("three") ? 1 : 0; }), 0);
}

TEST(PassedSockets, EachIsGivenAwayOnce) {
  EXPECT_EQ(inProcess({},
                      [] {
                        const int first = takePassedSocket("one").release();
                        return takePassedSocket("one") ? 1 : first;
                      }),
            3);
}

TEST(PassedSockets, OfSeveralOfOneNameTheFirstIsTakenFirst) {
  EXPECT_EQ(inProcess({.names = "one:one"},
                      [] {
                        const int first = takePassedSocket("one").release();
                        const int second = takePassedSocket("one").release();
                        return first == 3 && second == 4 && !takePassedSocket("one") ? 1 : 0;
                      }),
            1);
}

TEST(PassedSockets, TheNumberOfOneThatWasTakenAndClosedIsNotTakenAgain) {
  EXPECT_EQ(inProcess({},
                      [] {
                        takePassedSocket("one").reset();
                        const int other = ::open("/dev/zero", O_RDONLY);
                        const bool gone = other == 3 && !takePassedSocket("one");
                        return gone && passedSocketNames() == Names{"one", "two"} &&
                                       takePassedSocket("two").release() == 4
                                   ? 1
                                   : 0;
                      }),
            1);
}

TEST(PassedSockets, AllCloseOnExecutionAndNoOtherDoes) {
  EXPECT_EQ(inProcess({},
                      [] {
                        static_cast<void>(passedSocketNames());
                        return ::fcntl(3, F_GETFD) == FD_CLOEXEC && ::fcntl(4, F_GETFD) == FD_CLOEXEC &&
                                       ::fcntl(5, F_GETFD) == 0
                                   ? 1
                                   : 0;
                      }),
            1);
}

TEST(PassedSockets, WhatHasNoNameIsUnknownAndNamesBeyondTheDescriptorsAreNobodys) {
  EXPECT_TRUE(finds({.names = std::nullopt}, {"unknown", "unknown"}));
  EXPECT_TRUE(finds({.names = ""}, {"unknown", "unknown"}));
  EXPECT_TRUE(finds({.names = "one"}, {"one", "unknown"}));
  EXPECT_TRUE(finds({.names = "one:"}, {"one", ""}));
  EXPECT_TRUE(finds({.names = ":two"}, {"", "two"}));
  EXPECT_TRUE(finds({.names = "one:two:three:" + std::string(100'000, ':')}, {"one", "two"}));
}

TEST(PassedSockets, WhatWasHandedToAnotherProcessIsNotOurs) {
  EXPECT_TRUE(finds({.process = "1"}, {}));
  EXPECT_TRUE(finds({.process = std::to_string(::getpid())}, {})) << "the parent's";
  EXPECT_FALSE(takePassedSocket("one"));
}

TEST(PassedSockets, AChildHasNoneOfItsParents) {
  EXPECT_EQ(inProcess({},
                      [] {
                        static_cast<void>(passedSocketNames());
                        const pid_t child = ::fork();
                        if (child == 0)
                          ::_exit(takePassedSocket("one") || !passedSocketNames().empty() ? 1 : 0);
                        int status = 0;
                        ::waitpid(child, &status, 0);
                        return status == 0 && takePassedSocket("one").release() == 3 ? 1 : 0;
                      }),
            1);
}

TEST(PassedSockets, ANumberThatIsMalformedOrTooHighMeansNone) {
  for (const char* const text :
       {"", " ", "0", "-1", "+2", "2 ", " 2", "0x2", "2.0", "two", "4", "1000000", "2147483647", "2147483648",
        "4294967298", "18446744073709551615", "18446744073709551618", "99999999999999999999999999"}) {
    EXPECT_TRUE(finds({.count = text}, {})) << text;
  }
  EXPECT_TRUE(finds({.count = std::nullopt}, {}));
  EXPECT_TRUE(finds({.count = "002"}, {"one", "two"}));
  for (const char* const text : {"", "0", "-1", "self", "99999999999999999999999999"})
    EXPECT_TRUE(finds({.process = text}, {})) << text;
}

}  // namespace
}  // namespace kelvane::tests
