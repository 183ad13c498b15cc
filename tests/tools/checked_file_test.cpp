#include "tools/checked_file.h"

#include <gmock/gmock.h>

#include "tests/foundation/temporary_directory.h"
#include "tests/tools/screens.h"
#include "tools/services.h"

namespace kelvane::tests {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using tools::CheckedFile;
using tools::checkFile;
using tools::FileKind;

/// Each entry on a line of its own; the first is line 4.
std::string list(const std::vector<std::string>& entries) {
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n";
  for (const std::string& entry : entries) text += entry + "\n";
  return text + "</dict>\n</plist>\n";
}

struct Checking : testing::Test {
  /// The faults of a file that holds these entries, as the screen shows them, without the path.
  std::vector<std::string> faultsOf(const std::vector<std::string>& entries) {
    folder.write("a.plist", list(entries));
    std::vector<std::string> faults;
    for (const tools::Fault& fault : checkFile(folder / "a.plist").faults)
      faults.push_back(std::to_string(fault.line) + ": " + fault.text);
    return faults;
  }
  test::TemporaryDirectory folder;
};

const char* const identifier = "<key>KELVANE_ID</key><string>com.example.cache</string>";

TEST_F(Checking, FindsNothingInADescriptorThatSaysAll) {
  EXPECT_THAT(
      faultsOf({identifier,
                "<key>KELVANE_SERVICES</key><array><string>PURGE</string><string>PERIODIC</string></array>",
                "<key>KELVANE_DO_NOT_QUERY</key><true/>", "<key>KELVANE_OPT_OUT_QUOTA_EVENTS</key><false/>",
                "<key>KELVANE_MULTI_USER_MODE_ONLY</key><true/>",
                "<key>KELVANE_NOTIFICATIONS</key><array><string>name</string></array>"}),
      ElementsAre());
  EXPECT_EQ(checkFile(folder / "a.plist").kind, FileKind::descriptor);
}

TEST_F(Checking, NamesUnknownKeysAndWrongTypesWithTheirLine) {
  EXPECT_THAT(faultsOf({identifier, "<key>KELVANE_SERVICE</key><array/>",
                        "<key>KELVANE_NOTIFICATIONS</key><string>name</string>",
                        "<key>KELVANE_OPT_OUT_QUOTA_EVENTS</key><string>YES</string>"}),
              ElementsAre("5: \"KELVANE_SERVICE\" is no key that is known",
                          "6: KELVANE_NOTIFICATIONS is not an array of strings",
                          "7: KELVANE_OPT_OUT_QUOTA_EVENTS is not true or false"));
}

TEST_F(Checking, NamesWhatTheDaemonWouldPassOver) {
  EXPECT_THAT(faultsOf({identifier, "<key>KELVANE_SERVICES</key>", "<array><string>PURGE</string>",
                        "<string>PERIODICAL</string></array>"}),
              ElementsAre("7: KELVANE_SERVICES knows no \"PERIODICAL\""));
  EXPECT_THAT(faultsOf({"<key>KELVANE_SERVICES</key><array/>"}),
              ElementsAre("0: KELVANE_ID is missing, so no service is declared"));
  EXPECT_THAT(faultsOf({"<key>KELVANE_ID</key><string>../up</string>"}),
              ElementsAre("4: \"../up\" cannot be the name of the service's socket"));
  EXPECT_THAT(faultsOf({identifier, "<key>KELVANE_DO_NOT_QUERY</key><false/>"}),
              ElementsAre("5: KELVANE_DO_NOT_QUERY counts whatever its value; leave it out"));
}

TEST_F(Checking, FindsTheFaultsOfGrants) {
  const std::string names =
      "<key>com.orvel.private.Kelvane</key><array><string>PURGE_ENTITLEMENT</string></array>";
  EXPECT_THAT(faultsOf({"<key>user</key><integer>1000</integer>", names}), ElementsAre());
  EXPECT_EQ(checkFile(folder / "a.plist").kind, FileKind::grant);
  EXPECT_THAT(faultsOf({"<key>user</key><true/>", names}), ElementsAre("4: user is not a name or a number"));
  EXPECT_THAT(faultsOf({"<key>usr</key><string>root</string>", names}),
              ElementsAre("0: none of user, group and label is there, so the grant is for nobody",
                          "4: \"usr\" is no key that is known"));
  EXPECT_THAT(faultsOf({"<key>group</key><string>kelvane</string>"}),
              ElementsAre("0: com.orvel.private.Kelvane is missing, so nothing is granted"));
  EXPECT_THAT(faultsOf({"<key>user</key><string>root</string>",
                        "<key>com.orvel.private.Kelvane</key><array><string>PURGE</string></array>"}),
              ElementsAre("5: com.orvel.private.Kelvane knows no \"PURGE\""));
}

TEST_F(Checking, SaysWhyAFileCannotBeRead) {
  folder.write("broken.plist", "<plist><dict>");
  folder.write("array.plist",
               "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><array/></plist>");
  for (const char* name : {"broken.plist", "array.plist", "missing.plist", ""}) {
    const CheckedFile file = checkFile(folder / name);
    EXPECT_EQ(file.kind, FileKind::unreadable) << name;
    EXPECT_EQ(file.faults.size(), 1U) << name;
  }
}

TEST_F(Checking, SaysWhatAFileLooksLikeThatCannotBeParsedAndOnWhichLineWhereItCan) {
  const std::string xml = "<?xml version=\"1.0\"?>\n<plist version=\"1.0\">\n";
  struct Broken {
    std::string contents;
    std::size_t line;
    const char* says;
  };
  const std::vector<Broken> files = {
      {"", 0, "it is empty"},
      {xml + "<dict>\n<key>a</key><string>b</strin>\n</dict>\n</plist>\n", 4,
       "it is no well-formed XML: mismatched tag"},
      {xml + "<dict>\n<key>a</key>\n", 5, "it is no well-formed XML: no element found"},
      {xml + "<dict>\n<key>a & b</key><true/></dict></plist>\n", 4,
       "it is no well-formed XML: not well-formed"},
      {"KELVANE_ID = com.example.cache\n", 1, "it is text, but no XML"},
      {"  \n", 1, "it is text, but no XML"},
      {std::string("bplist00\xD1\x01\x02", 11), 0, "it is a binary property list, damaged or cut off: "},
      {std::string("\x7F"
                   "ELF\0\0",
                   6),
       0, "it is binary data, but no binary property list"},
      {"<html><body/></html>\n", 0, ""},
  };
  for (const Broken& each : files) {
    folder.write("a.plist", each.contents);
    const CheckedFile file = checkFile(folder / "a.plist");
    EXPECT_EQ(file.kind, FileKind::unreadable) << each.contents;
    ASSERT_EQ(file.faults.size(), 1U) << each.contents;
    EXPECT_EQ(file.faults[0].line, each.line) << each.contents << file.faults[0].text;
    EXPECT_THAT(file.faults[0].text, testing::StartsWith(each.says)) << each.contents;
    EXPECT_FALSE(file.faults[0].text.empty());
  }
}

TEST_F(Checking, IsShownAsCompilersShowFaults) {
  folder.write("a.plist", list({identifier, "<key>odd\033</key><true/>"}));
  folder.write("b.plist", list({identifier, "<key>odd</key><true/>"}));
  folder.write("c.plist", list({identifier}));
  const std::string shown =
      checkScreen({checkFile(folder / "b.plist"), checkFile(folder / "c.plist")}, plain(80));
  EXPECT_EQ(shown, (folder / "b.plist") + ":5: \"odd\" is no key that is known\n" + (folder / "c.plist") +
                       ": descriptor, no fault\n");
}

struct Declaring : testing::Test {
  std::vector<tools::Declared> declared() {
    return tools::declaredServices({folder / "system", folder / "internal"}, "/run/kelvane/services",
                                   folder / "unix");
  }
  test::TemporaryDirectory folder;
};

TEST_F(Declaring, TellsWhatOverridesWhatAndWhoListens) {
  folder.write("system/a.plist", list({identifier}));
  folder.write("system/b.plist", list({"<key>KELVANE_ID</key><string>com.example.maps</string>"}));
  folder.write("internal/mine.plist", list({identifier}));
  folder.write("unix",
               "Num       RefCount Protocol Flags    Type St Inode Path\n"
               "0: 00000002 00000000 00010000 0001 01 7 /run/kelvane/services/com.example.cache\n"
               "0: 00000003 00000000 00000000 0001 03 8 /run/kelvane/services/com.example.maps\n"
               "0: 00000003 00000000 00000000 0001 03 9\n");
  auto services = declared();
  ASSERT_EQ(services.size(), 3U);
  EXPECT_EQ(services[2].inode, "7");
  services[1].entitlement.reason = "it does not run";
  services[2].entitlement = {tools::Entitled::no, "user 1 lacks CLIENT_ENTITLEMENT"};
  EXPECT_EQ(services[0].overridden_by, folder / "internal/mine.plist");
  EXPECT_EQ(services[1].ID, "com.example.maps");
  EXPECT_FALSE(services[1].listening) << "connected, but nobody accepts there";
  EXPECT_TRUE(services[2].listening);
  EXPECT_EQ(services[2].overridden_by, "");
  EXPECT_EQ(servicesScreen(services, plain(80)),
            "com.example.cache\n  " + (folder / "system/a.plist") + "\n  overridden by " +
                (folder / "internal/mine.plist") + "\ncom.example.maps\n  " + (folder / "system/b.plist") +
                "\n  nobody listens on its socket\n  entitled or not: unknown; it does not run\n"
                "com.example.cache\n  " +
                (folder / "internal/mine.plist") +
                "\n  reachable\n  not entitled: user 1 lacks CLIENT_ENTITLEMENT\n");
}

TEST_F(Declaring, ShowsAFileThatDeclaresNothing) {
  folder.write("system/a.plist", list({"<key>ID</key><string>com.example.cache</string>"}));
  EXPECT_THAT(servicesScreen(declared(), plain(80)),
              testing::AllOf(HasSubstr("declares no service"), HasSubstr("has faults")));
}

TEST_F(Declaring, SaysSoWhenThereIsNone) {
  EXPECT_THAT(servicesScreen(declared(), plain(80)), HasSubstr("No service is declared"));
}

}  // namespace
}  // namespace kelvane::tests
