#include "platform/wire/names.h"

#include <string>

#include <gtest/gtest.h>

namespace kelvane::wire {
namespace {

TEST(Names, TheRootAndPathsOfIdentifiersAreObjectPaths) {
  for (const char* path : {"/", "/a", "/com/orvel/kelvane", "/_1/2x", "/0"})
    EXPECT_TRUE(isObjectPath(path)) << path;
}

TEST(Names, AnObjectPathHasNoEmptyElementAndNoOtherCharacters) {
  for (const char* path : {"", "a", "//", "/a/", "/a//b", "/a-b", "/a.b", "/\xc3\xa4", "a/b", " /a"})
    EXPECT_FALSE(isObjectPath(path)) << path;
}

TEST(Names, AnObjectPathMayBeLong) { EXPECT_TRUE(isObjectPath("/" + std::string(1000, 'a'))); }

TEST(Names, AnInterfaceHasTwoElementsAtLeast) {
  for (const char* name : {"a.b", "com.orvel.KelvaneClientProtocol", "_a._1", "A.B2.c"})
    EXPECT_TRUE(isInterfaceName(name)) << name;
  for (const char* name : {"", "a", ".", ".a.b", "a.b.", "a..b", "a.1b", "1a.b", "a-b.c", "a.b c", "a/b.c"})
    EXPECT_FALSE(isInterfaceName(name)) << name;
}

TEST(Names, ErrorsAreNamedLikeInterfaces) {
  EXPECT_TRUE(isErrorName("org.freedesktop.DBus.Error.Failed"));
  EXPECT_FALSE(isErrorName("Failed"));
}

TEST(Names, AMemberIsOneIdentifier) {
  for (const char* name : {"a", "clientGetState", "_", "Get2"}) EXPECT_TRUE(isMemberName(name)) << name;
  for (const char* name : {"", "a.b", "2a", "a-b", "a b", "\xc3\xa4"})
    EXPECT_FALSE(isMemberName(name)) << name;
}

TEST(Names, AWellKnownBusNameMayHaveHyphensAndNoLeadingDigit) {
  for (const char* name : {"a.b", "-a._b", "org.free-desktop.D-Bus"}) EXPECT_TRUE(isBusName(name)) << name;
  for (const char* name : {"", "a", "a.2b", "a..b", "a.", "a.b:c"}) EXPECT_FALSE(isBusName(name)) << name;
}

TEST(Names, AUniqueBusNameMayHaveLeadingDigits) {
  for (const char* name : {":1.42", ":a.b-c", ":-.0"}) EXPECT_TRUE(isBusName(name)) << name;
  for (const char* name : {":", ":1", ":.1", ":1.", ":1..2", "::1.2"}) EXPECT_FALSE(isBusName(name)) << name;
}

TEST(Names, NamesHave255BytesAtMost) {
  const std::string longest = "a." + std::string(253, 'b');
  for (const auto is_valid : {isInterfaceName, isBusName, isErrorName}) {
    EXPECT_TRUE(is_valid(longest));
    EXPECT_FALSE(is_valid(longest + 'b'));
  }
  EXPECT_TRUE(isMemberName(std::string(255, 'm')));
  EXPECT_FALSE(isMemberName(std::string(256, 'm')));
}

}  // namespace
}  // namespace kelvane::wire
