#include "tools/entitlement.h"

#include <gmock/gmock.h>
#include <unistd.h>
#include <filesystem>

#include "support/entitlements.h"
#include "tests/foundation/temporary_directory.h"
#include "tools/services.h"

namespace kelvane::tests {
namespace {

using testing::HasSubstr;
using tools::Entitled;
using tools::Entitlement;

struct Holding : testing::Test {
  /// Lets user 1000 be a client, and the group 2000 a service as well.
  Holding() {
    folder.write("grants/user.plist", grant("user", 1000, "<string>CLIENT_ENTITLEMENT</string>"));
    folder.write(
        "grants/group.plist",
        grant("group", 2000, "<string>CLIENT_ENTITLEMENT</string><string>SERVICE_ENTITLEMENT</string>"));
    loadEntitlementGrants({folder / "grants"});
  }
  static std::string grant(const std::string& key, int who, const std::string& names) {
    return "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>" + key + "</key><integer>" +
           std::to_string(who) + "</integer><key>com.orvel.private.Kelvane</key><array>" + names +
           "</array></dict></plist>";
  }
  /// A process that holds the socket of that inode.
  void process(const std::string& id, const std::string& user, const std::string& groups,
               const std::string& inode = "7") {
    folder.write("proc/" + id + "/status", "Name:\tservice\nUid:\t0\t" + user +
                                               "\t0\t0\nGid:\t0\t3000\t0\t0\nGroups:\t" + groups + " \n");
    folder.write("proc/" + id + "/attr/current", "unconfined\n");
    std::filesystem::create_directories(folder / ("proc/" + id + "/fd"));
    std::filesystem::create_symlink("socket:[" + inode + "]", folder / ("proc/" + id + "/fd/3"));
    std::filesystem::create_symlink("/dev/null", folder / ("proc/" + id + "/fd/0"));
  }
  Entitlement entitlement(const std::string& doubt = "") {
    return entitlementOf("7", tools::holdersOf({"7"}, folder / "proc"), doubt);
  }
  test::TemporaryDirectory folder;
};

TEST_F(Holding, IsEntitledWhenTheGrantsLetItCheckIn) {
  process("42", "1000", "5 2000");
  process("43", "1001", "");  // holds another socket
  std::filesystem::remove_all(folder / "proc/43/fd");
  const Entitlement found = entitlement();
  EXPECT_EQ(found.entitled, Entitled::yes);
  EXPECT_EQ(found.reason, "user 1000");
}

TEST_F(Holding, IsNotEntitledWithoutTheNameThatItLacks) {
  process("42", "1000", "5");
  EXPECT_EQ(entitlement().entitled, Entitled::no);
  EXPECT_EQ(entitlement().reason, "user 1000 lacks SERVICE_ENTITLEMENT");
}

TEST_F(Holding, IsUnknownWhenTheProcessesDiffer) {
  process("42", "1000", "2000");
  process("43", "1000", "");
  EXPECT_EQ(entitlement().entitled, Entitled::unknown);
}

TEST_F(Holding, IsUnknownWhenOnlyTheServiceManagerHoldsTheSocket) {
  process("1", "0", "");
  process("42", "1000", "2000", "8");
  EXPECT_EQ(entitlement().entitled, Entitled::unknown);
  EXPECT_EQ(entitlement().reason, "no process but the service manager holds its socket");
}

TEST_F(Holding, IsUnknownWhenTheHolderCannotBeSeen) {
  tools::Holders holders;
  holders.all_seen = false;
  EXPECT_EQ(entitlementOf("7", holders, "").reason, "this user cannot see who holds its socket");
}

TEST_F(Holding, IsUnknownWhenTheDaemonMayReadOtherGrants) {
  process("42", "1000", "2000");
  EXPECT_EQ(entitlement("a doubt").entitled, Entitled::unknown);
  EXPECT_EQ(entitlement("a doubt").reason, "a doubt");
}

TEST_F(Holding, DoubtsGrantsThatAreNotRoots) {
  folder.write("strangers/a.plist", "");
  const std::string strangers = folder / "strangers/a.plist";
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(strangers.c_str(), 65534, 65534), 0);
  }
  EXPECT_EQ(tools::doubtAboutGrants({folder / "strangers"}),
            "only the daemon knows whether it believes " + strangers);
}

TEST_F(Holding, DoubtsGrantsInADirectoryThatIsNotRoots) {
  const std::string own = folder / "etc/entitlements.d";
  folder.write("etc/entitlements.d/a.plist", grant("user", 1000, ""));
  EXPECT_EQ(tools::doubtAboutGrants({own}), "");
  for (const std::string& directory : {own, folder / "etc"}) {
    ASSERT_EQ(::chown(directory.c_str(), 65534, 65534), 0);
    EXPECT_EQ(tools::doubtAboutGrants({own}), "only the daemon knows whether it believes " + directory);
    ASSERT_EQ(::chown(directory.c_str(), 0, 0), 0);
  }
}

TEST_F(Holding, DoubtsGrantsThatCannotBeRead) {
  EXPECT_EQ(tools::doubtAboutGrants({folder / "none"}), "") << "a missing folder has no grants";
  std::filesystem::create_directories(folder / "others");
  folder.write("others/notes.txt", "");
  EXPECT_EQ(tools::doubtAboutGrants({folder / "others"}), "") << "what is no *.plist is not read";
  std::filesystem::create_symlink("/nowhere", folder / "others/a.plist");
  EXPECT_THAT(tools::doubtAboutGrants({folder / "others"}),
              HasSubstr("cannot read " + (folder / "others/a.plist")));
}

}  // namespace
}  // namespace kelvane::tests
