#include "platform/host/generic_netlink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <cstring>
#include <vector>

namespace kelvane {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes bytesOf(std::initializer_list<int> numbers) { return {numbers.begin(), numbers.end()}; }

// The kernel always has the family "nlctrl", with the group "notify".

TEST(NetlinkGroup, IsFoundByTheNamesOfFamilyAndGroup) {
  const FileDescriptor socket = listenToNetlinkGroup("nlctrl", "notify");
  ASSERT_TRUE(socket);
  EXPECT_NE(::fcntl(socket.get(), F_GETFL) & O_NONBLOCK, 0);
  std::uint32_t groups = 0;
  socklen_t size = sizeof groups;
  ASSERT_EQ(::getsockopt(socket.get(), SOL_NETLINK, NETLINK_LIST_MEMBERSHIPS, &groups, &size), 0);
  EXPECT_NE(groups, 0U);
}

TEST(NetlinkGroup, IsNothingWhereTheKernelHasNoneOfThatName) {
  EXPECT_FALSE(listenToNetlinkGroup("nlctrl", "no such group"));
  EXPECT_FALSE(listenToNetlinkGroup("no_such_family", "notify"));
}

TEST(NetlinkAttributes, AreTakenOneAfterTheOtherWithTheirPadding) {
  const Bytes bytes = bytesOf({5, 0, 7, 0, 'a', 0, 0, 0, 6, 0, 8, 0x80, 'b', 'c'});
  std::span<const unsigned char> left(bytes);
  const auto first = takeAttribute(left);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->type, 7);
  EXPECT_EQ(Bytes(first->value.begin(), first->value.end()), bytesOf({'a'}));
  const auto second = takeAttribute(left);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->type, 8);  // without the flag for nested ones
  EXPECT_EQ(Bytes(second->value.begin(), second->value.end()), bytesOf({'b', 'c'}));
  EXPECT_FALSE(takeAttribute(left));
  EXPECT_EQ(attributeValue(bytes, 8).size(), 2U);
  EXPECT_TRUE(attributeValue(bytes, 9).empty());
}

TEST(NetlinkAttributes, EndWhereALengthIsWrong) {
  for (const int length : {0, 3, 9, 255}) {
    const Bytes bytes = bytesOf({length, 0, 7, 0, 'a', 'b', 'c', 'd'});
    std::span<const unsigned char> left(bytes);
    EXPECT_FALSE(takeAttribute(left)) << length;
  }
}

TEST(NetlinkMessage, IsNothingWhenItsLengthIsWrong) {
  Bytes bytes(NLMSG_HDRLEN + GENL_HDRLEN + 4);
  for (const std::uint32_t length : {0U, 19U, 25U}) {
    std::memcpy(bytes.data(), &length, sizeof length);
    EXPECT_FALSE(parseGenericNetlink(bytes)) << length;
  }
  const std::uint32_t length = 24;
  std::memcpy(bytes.data(), &length, sizeof length);
  bytes[16] = 9;
  const auto message = parseGenericNetlink(bytes);
  ASSERT_TRUE(message);
  EXPECT_EQ(message->command, 9);
  EXPECT_EQ(message->attributes.size(), 4U);
}

}  // namespace
}  // namespace kelvane
