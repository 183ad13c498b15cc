#include "platform/wire/server_identifier.h"

#include <gmock/gmock.h>
#include <cerrno>
#include <set>

#include "tests/wire/system_call_faults.h"

namespace kelvane::wire {
namespace {

using testing::MatchesRegex;

TEST(ServerIdentifierTest, EachIsThirtyTwoHexadecimalDigitsAndDifferent) {
  std::set<std::string> made;
  for (int i = 0; i < 1000; ++i) {
    const std::string identifier = makeServerIdentifier();
    ASSERT_THAT(identifier, MatchesRegex("[0-9a-f]{32}"));
    EXPECT_TRUE(made.insert(identifier).second) << identifier;
  }
  // Each digit takes each value somewhere.
  for (std::size_t i = 0; i < 32; ++i) {
    std::set<char> digits;
    for (const std::string& identifier : made) digits.insert(identifier.at(i));
    EXPECT_EQ(digits.size(), 16U) << "digit " << i;
  }
}

TEST(ServerIdentifierTest, ProcessHasOne) {
  const std::string first = serverIdentifier();
  EXPECT_EQ(serverIdentifier(), first);
}

TEST(ServerIdentifierTest, InterruptedCallIsRepeated) {
  const SystemCallFault fault("getrandom", EINTR, 3);
  EXPECT_NE(makeServerIdentifier(), std::string(32, '0'));
  EXPECT_EQ(SystemCallFault::failed(), 3);
}

TEST(ServerIdentifierTest, BytesThatComeOneByOneAreAllUsed) {
  std::set<std::string> ends;
  for (int i = 0; i < 100; ++i) {
    const SystemCallFault fault("getrandom", 0, 16);
    ends.insert(makeServerIdentifier().substr(2));
    EXPECT_EQ(SystemCallFault::failed(), 16);
  }
  EXPECT_EQ(ends.size(), 100U);
}

TEST(ServerIdentifierDeathTest, ProcessWithoutRandomNumbersEnds) {
  EXPECT_DEATH(
      {
        const SystemCallFault fault("getrandom", ENOSYS, 1);
        static_cast<void>(makeServerIdentifier());
      },
      "cannot make a server identifier: getrandom: Function not implemented");
}

}  // namespace
}  // namespace kelvane::wire
