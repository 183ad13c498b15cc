#include "support/entitlements.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "common/keys.h"
#include "platform/foundation/property_list.h"
#include "support/grants.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/log_capture.h"

namespace kelvane::tests {
namespace {

xpc::PeerCredentials peer(uid_t user, gid_t group = 5000, std::vector<gid_t> groups = {}) {
  return {1, user, group, std::move(groups), std::nullopt};
}

std::string key(const std::string& name, const std::string& value) {
  return "<key>" + name + "</key>" + value;
}
std::string string(const std::string& text) { return "<string>" + text + "</string>"; }
std::string integer(const std::string& number) { return "<integer>" + number + "</integer>"; }
std::string names(const std::string& strings) {
  return key(entitlements_key, "<array>" + strings + "</array>");
}
std::string list(const std::string& root) { return "<plist version=\"1.0\">" + root + "</plist>"; }
std::string grant(const std::string& entries) { return list("<dict>" + entries + "</dict>"); }

/// Two folders of grants, in place of the system's.
class Entitlements : public testing::Test {
 protected:
  void TearDown() override { loadEntitlementGrants({}); }

  void load() const { loadEntitlementGrants({directory_ / "shipped", directory_ / "own"}); }
  void write(const std::string& name, const std::string& text) const {
    directory_.write(name, text);
    // Whatever the umask is.
    ::chmod((directory_ / name).c_str(), 0644);
    for (const char* const folder : {"shipped", "own"}) ::chmod((directory_ / folder).c_str(), 0755);
  }
  /// Loads one file and says whether user 1234 then holds CLIENT_ENTITLEMENT.
  [[nodiscard]] bool grantsClient(const std::string& text,
                                  const xpc::PeerCredentials& who = peer(1234)) const {
    write("own/grant.plist", text);
    load();
    return peerIsEntitled(who, {CLIENT_ENTITLEMENT});
  }

  const test::TemporaryDirectory directory_;
  const LogCapture log_{3};
};

const std::vector<std::string> every_name = {CLIENT_ENTITLEMENT,
                                             SERVICE_ENTITLEMENT,
                                             PURGE_ENTITLEMENT,
                                             PURGEABLE_ENTITLEMENT,
                                             ITEMIZED_PURGEABLE_ENTITLEMENT,
                                             CANCEL_PURGE_ENTITLEMENT,
                                             PERIODIC_ENTITLEMENT,
                                             SERVICE_REQUEST_ENTITLEMENT,
                                             NOTIFICATION_ENTITLEMENT};
const std::string client = names(string(CLIENT_ENTITLEMENT));

TEST_F(Entitlements, AUserIsNamedOrNumbered) {
  EXPECT_TRUE(grantsClient(grant(key("user", integer("1234")) + client)));
  EXPECT_FALSE(grantsClient(grant(key("user", integer("1235")) + client)));
  EXPECT_TRUE(grantsClient(grant(key("user", string("root")) + client), peer(0)));
  EXPECT_FALSE(grantsClient(grant(key("user", string("root")) + client)));
}

TEST_F(Entitlements, AGroupCountsWhetherItIsThePeersFirstOrAnother) {
  EXPECT_TRUE(grantsClient(grant(key("group", integer("77")) + client), peer(1234, 77)));
  EXPECT_TRUE(grantsClient(grant(key("group", integer("77")) + client), peer(1234, 5, {6, 77})));
  EXPECT_FALSE(grantsClient(grant(key("group", integer("77")) + client), peer(77, 5, {6})));
  EXPECT_TRUE(grantsClient(grant(key("group", string("root")) + client), peer(1234, 0)));
}

TEST_F(Entitlements, ALabelMustBeThePeersOwn) {
  xpc::PeerCredentials labelled = peer(1234);
  labelled.label = "system_u:cache";
  EXPECT_TRUE(grantsClient(grant(key("label", string("system_u:cache")) + client), labelled));
  EXPECT_FALSE(grantsClient(grant(key("label", string("system_u:other")) + client), labelled));
  EXPECT_FALSE(grantsClient(grant(key("label", string("system_u:cache")) + client)));
}

TEST_F(Entitlements, AllThatAGrantNamesMustMatch) {
  const std::string both = grant(key("user", integer("1234")) + key("group", integer("77")) + client);
  EXPECT_TRUE(grantsClient(both, peer(1234, 77)));
  EXPECT_FALSE(grantsClient(both, peer(1234, 78)));
  EXPECT_FALSE(grantsClient(both, peer(1235, 77)));
}

TEST_F(Entitlements, EveryAskedNameMustBeHeld) {
  write("own/a.plist", grant(key("user", integer("1234")) + client));
  load();
  EXPECT_FALSE(peerIsEntitled(peer(1234), {CLIENT_ENTITLEMENT, PURGE_ENTITLEMENT}));
  EXPECT_TRUE(peerIsEntitled(peer(1234), {}));
}

TEST_F(Entitlements, WhatSeveralGrantsGiveAddsUp) {
  write("shipped/a.plist", grant(key("user", integer("1234")) + client));
  write("own/b.plist", grant(key("group", integer("77")) + names(string(PURGE_ENTITLEMENT))));
  load();
  EXPECT_TRUE(peerIsEntitled(peer(1234, 77), {CLIENT_ENTITLEMENT, PURGE_ENTITLEMENT}));
  EXPECT_FALSE(peerIsEntitled(peer(1234, 78), {CLIENT_ENTITLEMENT, PURGE_ENTITLEMENT}));
}

TEST_F(Entitlements, FilesOfOtherNamesAreNotRead) {
  write("own/a.plist", grant(key("user", integer("1")) + client));
  write("own/a.plist.orig", grant(key("user", integer("1234")) + client));
  write("own/folder/a.plist", grant(key("user", integer("1234")) + client));
  load();
  EXPECT_FALSE(peerIsEntitled(peer(1234), {CLIENT_ENTITLEMENT}));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(Entitlements, WithoutAnyGrantFileRootHoldsEveryName) {
  load();
  EXPECT_TRUE(peerIsEntitled(peer(0), every_name));
  EXPECT_FALSE(peerIsEntitled(peer(1234), {CLIENT_ENTITLEMENT}));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(Entitlements, WithAGrantFileRootHoldsWhatItIsGranted) {
  EXPECT_FALSE(grantsClient(grant(key("user", integer("1234")) + client), peer(0)));
  EXPECT_FALSE(grantsClient("no property list", peer(0)));
}

TEST_F(Entitlements, AFileThatOthersCanWriteIsIgnoredAndNamed) {
  const std::string path = directory_ / "own/grant.plist";
  for (const mode_t mode : {mode_t{0666}, mode_t{0646}, mode_t{0664}}) {
    write("own/grant.plist", grant(key("user", integer("1234")) + client));
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    load();
    EXPECT_FALSE(peerIsEntitled(peer(1234), {CLIENT_ENTITLEMENT}));
  }
  EXPECT_EQ(log_.count(3, "ignoring " + path + ": others can write it"), 3U);
  ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
  load();
  EXPECT_TRUE(peerIsEntitled(peer(1234), {CLIENT_ENTITLEMENT}));
}

TEST_F(Entitlements, AFileIsTrustedOnlyWhenRootOrThisUserOwnsIt) {
  struct stat status {};
  status.st_mode = S_IFREG | 0644;
  EXPECT_EQ(whyDistrusted(status), nullptr);
  status.st_uid = ::geteuid();
  EXPECT_EQ(whyDistrusted(status), nullptr);
  status.st_uid = ::geteuid() + 1234;
  EXPECT_STREQ(whyDistrusted(status), "it is owned by another user");
  status.st_uid = 0;
  status.st_mode = S_IFDIR | 0755;
  EXPECT_STREQ(whyDistrusted(status), "it is not a regular file");
}

TEST_F(Entitlements, AFIFOIsIgnoredAndNotWaitedFor) {
  std::filesystem::create_directory(directory_ / "own");
  ASSERT_EQ(::mkfifo((directory_ / "own/grant.plist").c_str(), 0600), 0);
  load();
  EXPECT_TRUE(log_.contains(3, "it is not a regular file"));
}

TEST_F(Entitlements, AFileThatIsNoGrantIsIgnoredWithTheReason) {
  const std::string user = key("user", integer("1234"));
  const std::vector<std::pair<std::string, std::string>> bad = {
      {list("<array/>"), "it is not a dictionary"},
      {grant(user), "it has no array com.orvel.private.Kelvane"},
      {grant(user + key(entitlements_key, string(CLIENT_ENTITLEMENT))), "it has no array"},
      {grant(user + names(string(CLIENT_ENTITLEMENT) + integer("1"))), "an entitlement is not a string"},
      {grant(client), "it names no user, group or label"},
      {grant(key("User", integer("1234")) + client), "it names no user, group or label"},
      {grant(key("user", "<true/>") + client), "its user is neither a name nor a number"},
      {grant(key("user", integer("-1")) + client), "its user is neither a name nor a number"},
      {grant(key("user", integer("4294967295")) + client), "its user is neither a name nor a number"},
      {grant(key("group", "<array/>") + client), "its group is neither a name nor a number"},
      {grant(user + key("label", integer("1")) + client), "its label is not a string"},
      {grant(user + client + names("")) + std::string(2 << 20, ' '), "it is too large"},
  };
  for (const auto& [text, reason] : bad) {
    EXPECT_FALSE(grantsClient(text)) << text.substr(0, 200);
    ASSERT_FALSE(log_.lines().empty());
    EXPECT_EQ(log_.lines().back().text.find("loadEntitlementGrants ignoring " +
                                            (directory_ / "own/grant.plist: ") + reason),
              0U)
        << log_.lines().back().text << " for " << text.substr(0, 200);
  }
  EXPECT_EQ(log_.lines().size(), bad.size());
}

TEST_F(Entitlements, ATextThatIsNoPropertyListIsIgnoredAndTheOthersCount) {
  write("own/a.plist", "neither this nor that");
  write("own/b.plist", grant(key("user", integer("1234")) + client));
  load();
  EXPECT_TRUE(peerIsEntitled(peer(1234), {CLIENT_ENTITLEMENT}));
  EXPECT_EQ(log_.count(3, "a.plist: "), 1U);
}

TEST_F(Entitlements, AnUnknownUserOrGroupMatchesNobody) {
  EXPECT_FALSE(grantsClient(grant(key("user", string("no-such-user")) + client), peer(0)));
  EXPECT_TRUE(log_.contains(3, "grants nothing: there is no user no-such-user"));
  EXPECT_FALSE(
      grantsClient(grant(key("user", integer("1234")) + key("group", string("no-such-group")) + client)));
  EXPECT_TRUE(log_.contains(3, "grants nothing: there is no group no-such-group"));
  EXPECT_EQ(log_.lines().size(), 2U);
}

std::string shipped(const std::string& name) {
  std::ostringstream text;
  text << std::ifstream(std::string(SHIPPED_GRANTS) + "/" + name).rdbuf();
  return text.str();
}

TEST_F(Entitlements, TheShippedRootGrantHoldsEveryName) {
  EXPECT_TRUE(grantsClient(shipped("10-root.plist"), peer(0)));
  EXPECT_TRUE(peerIsEntitled(peer(0), every_name));
  EXPECT_FALSE(peerIsEntitled(peer(1234), {CLIENT_ENTITLEMENT}));
}

TEST_F(Entitlements, TheShippedGroupGrantHoldsWhatClientsAndServicesNeed) {
  const std::string text = shipped("20-group-kelvane.plist");
  const PropertyListResult read = propertyListWithData(Data({text.begin(), text.end()}));
  ASSERT_FALSE(read.error) << *read.error;
  const Dictionary expected{
      {"group", "kelvane"},
      {entitlements_key, Array{CLIENT_ENTITLEMENT, PURGE_ENTITLEMENT, PURGEABLE_ENTITLEMENT,
                               ITEMIZED_PURGEABLE_ENTITLEMENT, SERVICE_ENTITLEMENT}}};
  EXPECT_EQ(read.value, Value(expected));
}

TEST_F(Entitlements, AConnectionThatThisProcessOpenedHoldsNothing) {
  const auto connection = xpc::Connection::initWithSocketPath("/nonexistent");
  EXPECT_FALSE(connectionIsEntitled(*connection, {}));
}

}  // namespace
}  // namespace kelvane::tests
