// Which users of the machine are considered.

#include "caches/users.h"

#include <gmock/gmock.h>

#include "tests/caches/temporary_directory.h"

namespace kelvane::caches::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<uid_t> idsIn(const std::string& text) {
  const TemporaryDirectory directory;
  write(directory / "passwd", text);
  std::vector<uid_t> ids;
  for (const User& user : usersIn(directory / "passwd")) ids.push_back(user.id);
  return ids;
}

TEST(Users, ArePeopleByTheirIdsEvenWhenTheyCannotLogIn) {
  EXPECT_THAT(idsIn("root:x:0:0::/root:/bin/bash\n"
                    "daemon:x:999:999::/usr/sbin:/bin/sh\n"
                    "nobody:x:65534:65534::/nonexistent:/usr/sbin/nologin\n"
                    "locked:x:65533:100::/home/locked:/usr/sbin/nologin\n"
                    "alice:x:1000:1000:Alice,,,:/home/alice:/bin/bash\n"),
              ElementsAre(1000, 65533));
}

TEST(Users, WithOneIdAreOneUser) {
  EXPECT_THAT(idsIn("a:x:1000:1000::/home/a:\nb:x:1000:1000::/home/b:\n"), ElementsAre(1000));
}

TEST(Users, AreFoundBesideLinesThatAreMalformed) {
  EXPECT_THAT(idsIn("\n# comment\nhalf:x:10\nalice:x:1000:1000::/home/alice:/bin/sh\nx:y:z:1:::\n"),
              ElementsAre(1000));
}

TEST(Users, AreBoundedInNumber) {
  std::string many;
  for (std::size_t i = 0; i < most_users + 10; ++i) {
    const std::string id = std::to_string(1000 + i);
    many += "u" + id + ":x:" + id + ":" + id + "::/home/u" + id + ":/bin/sh\n";
  }
  EXPECT_EQ(idsIn(many).size(), most_users);
}

TEST(Users, AreNobodyWhenTheFileCannotBeRead) { EXPECT_THAT(usersIn("/nonexistent/passwd"), IsEmpty()); }

TEST(User, HasTheGroupAndHomeOfItsLine) {
  const TemporaryDirectory directory;
  write(directory / "passwd", "man:x:6:12:man:/var/cache/man:/usr/sbin/nologin\n");
  const User found = userIn(directory / "passwd", 6, 77);
  EXPECT_EQ(found.group, 12U);
  EXPECT_EQ(found.home, "/var/cache/man");
  EXPECT_EQ(userIn(directory / "passwd", 7, 77).group, 77U);
}

TEST(Home, IsRefusedWhenItIsNotAUsersOwn) {
  for (const char* const home :
       {"", "/", "/nonexistent", "relative/home", "/home/../etc", "/home/.", "/dev/null"}) {
    EXPECT_NE(faultOfHome(home), "") << home;
  }
  EXPECT_EQ(faultOfHome("/home/alice"), "");
  EXPECT_EQ(faultOfHome("/home/..alice"), "");
}

}  // namespace
}  // namespace kelvane::caches::tests
