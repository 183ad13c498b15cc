#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <algorithm>
#include <climits>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "tests/daemon/daemon_fixture.h"
#include "tests/foundation/deep_directories.h"

namespace kelvane {
namespace {

constexpr const char* failed = "scanPlistsAtPath:execBlock: propertyListWithData failed: ";

class Descriptors : public tests::DaemonFixture {
 protected:
  /// The record that this descriptor alone gives.
  std::shared_ptr<KVService> serviceOf(const Dictionary& list) {
    descriptor(systemFile("one.plist"), list);
    const Services services = kelvane()->copyServices();
    return services.size() == 1 ? services.begin()->second : nullptr;
  }
  /// Expects that the file is skipped with one level-3 line and the scan goes on to the next one.
  void expectSkipped(const std::string& reason_holds) {
    descriptor(systemFile("zz.plist"), Dictionary{{KELVANE_ID, "next"}});
    const Services services = kelvane()->copyServices();
    EXPECT_EQ(services.size(), 1u);
    EXPECT_TRUE(services.contains("next"));
    EXPECT_EQ(log_.count(3, failed), 1u);
    EXPECT_EQ(log_.count(3, ""), 1u);
    for (const auto& line : log_.lines()) {
      if (line.level == 3) {
        EXPECT_NE(line.text.find(reason_holds), std::string::npos) << line.text;
      }
    }
  }
  [[nodiscard]] std::string path(const std::string& name) const { return directory_ / systemFile(name); }
  void makeFolder() const { std::filesystem::create_directories(directory_ / system_folder); }
};

// --- what a descriptor says ---

TEST_F(Descriptors, ServicesPeriodicGivesAServiceThatDoesPeriodicWorkAndIsNeverAskedToPurge) {
  const auto it = serviceOf(Dictionary{{KELVANE_ID, "a"}, {KELVANE_SERVICES, Array{"PERIODIC"}}});
  EXPECT_TRUE(it->doesPeriodic());
  EXPECT_FALSE(it->doesPurge());
}

TEST_F(Descriptors, OneWithNoServicesKeyPurgesAndHasNoPeriodicWork) {
  const auto it = serviceOf(Dictionary{{KELVANE_ID, "a"}});
  EXPECT_TRUE(it->doesPurge());
  EXPECT_FALSE(it->doesPeriodic());
}

TEST_F(Descriptors, AnEmptyArrayGivesAServiceThatDoesNeither) {
  const auto it = serviceOf(Dictionary{{KELVANE_ID, "a"}, {KELVANE_SERVICES, Array{}}});
  EXPECT_FALSE(it->doesPurge());
  EXPECT_FALSE(it->doesPeriodic());
}

TEST_F(Descriptors, BothKindsMayBeListedAmongOthers) {
  const auto it =
      serviceOf(Dictionary{{KELVANE_ID, "a"}, {KELVANE_SERVICES, Array{"X", "PURGE", "PERIODIC", 5}}});
  EXPECT_TRUE(it->doesPurge());
  EXPECT_TRUE(it->doesPeriodic());
}

TEST_F(Descriptors, DoNotQueryFalseStillMarksTheServiceNotToBeQueried) {
  EXPECT_TRUE(serviceOf(Dictionary{{KELVANE_ID, "a"}, {KELVANE_DO_NOT_QUERY, false}})->doNotQuery());
  EXPECT_EQ(log_.count(5, "init marking a as DO_NOT_QUERY"), 1u);
}

TEST_F(Descriptors, WithoutTheOtherKeysNothingElseIsSet) {
  const auto it = serviceOf(Dictionary{{KELVANE_ID, "a"}, {"OTHER", true}});
  EXPECT_EQ(it->ID(), "a");
  EXPECT_FALSE(it->doNotQuery());
  EXPECT_FALSE(it->noQuota());
  EXPECT_FALSE(it->multiUserOnly());
  EXPECT_EQ(it->desiredNotifications(), std::nullopt);
  EXPECT_FALSE(it->endpoint());
  EXPECT_EQ(it->xpcConn(), nullptr);
}

TEST_F(Descriptors, NotificationsAndFlagsAreTaken) {
  const auto it = serviceOf(Dictionary{{KELVANE_ID, "a"},
                                       {KELVANE_NOTIFICATIONS, Array{"n", "m", "n"}},
                                       {KELVANE_OPT_OUT_QUOTA_EVENTS, true},
                                       {KELVANE_MULTI_USER_MODE_ONLY, 1}});
  EXPECT_EQ(it->desiredNotifications(), (std::set<std::string>{"m", "n"}));
  EXPECT_TRUE(it->noQuota());
  EXPECT_TRUE(it->multiUserOnly());
  EXPECT_EQ(log_.count(5, "init a desiredNotifications: "), 1u);
}

TEST_F(Descriptors, ValuesOfAnotherTypeAskTheServiceForLessRatherThanMore) {
  const auto it = serviceOf(Dictionary{{KELVANE_ID, "a"},
                                       {KELVANE_SERVICES, "PURGE"},
                                       {KELVANE_NOTIFICATIONS, Dictionary{{"n", 1}}},
                                       {KELVANE_OPT_OUT_QUOTA_EVENTS, "YES"},
                                       {KELVANE_MULTI_USER_MODE_ONLY, Array{1}}});
  EXPECT_FALSE(it->doesPurge());
  EXPECT_FALSE(it->doesPeriodic());
  EXPECT_EQ(it->desiredNotifications(), std::nullopt);
  EXPECT_FALSE(it->noQuota());
  EXPECT_FALSE(it->multiUserOnly());
}

TEST_F(Descriptors, WithoutAnIDThatIsAStringTheFileIsIgnoredSilently) {
  descriptor(systemFile("none.plist"), Dictionary{{KELVANE_SERVICES, Array{"PURGE"}}});
  descriptor(systemFile("number.plist"), Dictionary{{KELVANE_ID, 7}});
  EXPECT_TRUE(kelvane()->copyServices().empty());
  EXPECT_EQ(log_.count(3, ""), 0u);
}

// --- where descriptors are found ---

TEST_F(Descriptors, OfTwoWithTheSameIDTheLaterOneReadWinsAndTheIDAppearsOnceInDaemons) {
  descriptor(systemFile("a.plist"), Dictionary{{KELVANE_ID, "same"}, {KELVANE_OPT_OUT_QUOTA_EVENTS, true}});
  descriptor(systemFile("b.plist"), Dictionary{{KELVANE_ID, "same"}, {KELVANE_DO_NOT_QUERY, true}});
  const auto it = kelvane();
  const Services services = it->copyServices();
  ASSERT_EQ(services.size(), 1u);
  EXPECT_TRUE(services.at("same")->doNotQuery());
  EXPECT_FALSE(services.at("same")->noQuota());
  EXPECT_EQ(it->daemons(), std::set<std::string>{"same"});
}

TEST_F(Descriptors, TheIDsOfBothDirectoriesAreDeclared) {
  descriptor(systemFile("a.plist"), Dictionary{{KELVANE_ID, "one"}});
  descriptor(systemFile("b.plist"), Dictionary{{KELVANE_ID, "two"}});
  descriptor(internalFile("c.plist"), Dictionary{{KELVANE_ID, "three"}});
  const auto it = kelvane();
  EXPECT_EQ(it->daemons(), (std::set<std::string>{"one", "two", "three"}));
  EXPECT_EQ(it->copyServices().size(), 3U);
}

TEST_F(Descriptors, OfManyAllAreTakenInTheOrderOfTheirNamesWhateverIsAmongThem) {
  constexpr int files = 300;  // read ahead by two threads, some hundred at a time
  const auto number = [](int file) { return std::to_string(1000 + file); };
  for (int file = 0; file < files; ++file) {
    const std::string name = systemFile(number(file) + ".plist");
    Dictionary list{{KELVANE_ID, "id" + std::to_string(file % 100)}, {KELVANE_DO_NOT_QUERY, true}};
    if (file >= 200) list.remove(KELVANE_DO_NOT_QUERY);
    if (file % 10 == 3) list.set("comment", std::string(20'000, 'x'));  // too large to be read ahead
    if (file % 10 == 7) {
      directory_.write(name, "no property list");
    } else {
      descriptor(name, list);
    }
  }
  const Services services = kelvane()->copyServices();
  EXPECT_EQ(services.size(), 90u);
  for (const auto& [identifier, service] : services) EXPECT_FALSE(service->doNotQuery()) << identifier;
  std::vector<std::string> expected;
  for (int file = 0; file < files; ++file) {
    expected.push_back("//" + number(file) + ".plist");
    if (file % 10 == 7) expected.push_back("propertyListWithData failed");
  }
  std::size_t next = 0;
  for (const auto& line : log_.lines()) {
    if (next < expected.size() && line.text.find(expected[next]) != std::string::npos) ++next;
  }
  EXPECT_EQ(next, expected.size()) << "not seen in its place: "
                                   << expected[std::min(next, expected.size() - 1)];
  EXPECT_EQ(log_.count(3, failed), 30u);
}

TEST_F(Descriptors, OneInTheInternalDirectoryOverridesOneOfTheSameIDInTheSystemDirectory) {
  descriptor(systemFile("z.plist"), Dictionary{{KELVANE_ID, "same"}});
  descriptor(internalFile("a.plist"),
             Dictionary{{KELVANE_ID, "same"}, {KELVANE_SERVICES, Array{"PERIODIC"}}});
  EXPECT_FALSE(kelvane()->copyServices().at("same")->doesPurge());
}

TEST_F(Descriptors, OneInANestedSubdirectoryIsFoundAndUsed) {
  descriptor(systemFile("deep/er/one"), Dictionary{{KELVANE_ID, "nested"}});
  EXPECT_TRUE(kelvane()->copyServices().contains("nested"));
  // Each of the two folders is an entry that is no property list.
  EXPECT_EQ(log_.count(3, failed), 2u);
  EXPECT_TRUE(log_.contains(5, "scanPlistsAtPath:execBlock: looking at: " + directory_.path() +
                                   "/System/Library/Kelvane//deep/er/one"));
}

TEST_F(Descriptors, One200DirectoriesDeepIsFoundAndUsed) {
  makeFolder();
  const std::string list = propertyListXML(Dictionary{{KELVANE_ID, "deepest"}}).xml;
  int level = 0;
  const std::string deep = test::makeDeepDirectories(directory_ / system_folder, "directory-with-a-long-name",
                                                     200, [&](int directory) {
                                                       if (++level == 200)
                                                         test::writeFileAt(directory, "one.plist", list);
                                                     });
  ASSERT_GT(deep.size(), std::size_t{PATH_MAX});
  EXPECT_TRUE(kelvane()->copyServices().contains("deepest"));
  EXPECT_EQ(log_.count(3, failed), 200U) << "each of the directories is no property list";
  EXPECT_TRUE(log_.contains(5, "looking at: " + path("") + "/" + deep + "/one.plist"));
}

TEST_F(Descriptors, AMissingDirectoryRegistersNothingAndLogsNothing) {
  const auto it = kelvane();
  EXPECT_TRUE(it->copyServices().empty());
  EXPECT_TRUE(it->daemons().empty());
  EXPECT_EQ(log_.count(3, ""), 0u);
  EXPECT_EQ(log_.count(5, "looking at"), 0u);
}

TEST_F(Descriptors, ABinaryOneIsRead) {
  // {KELVANE_ID = "bin"} as plutil-like tools write it.
  const std::string bytes(
      "bplist00\xD1\x01\x02\x5AKELVANE_ID\x53"
      "bin\x08\x0B\x16\x00\x00\x00\x00\x00\x00\x01\x01\x00\x00"
      "\x00\x00\x00\x00\x00\x03\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x1A",
      8 + 3 + 11 + 4 + 3 + 32);
  directory_.write(systemFile("one"), bytes);
  EXPECT_TRUE(kelvane()->copyServices().contains("bin"));
}

// --- what is none ---

TEST_F(Descriptors, TheReasonNamesTheFileWhateverIsWrongWithIt) {
  const std::string whole =
      propertyListXML(Dictionary{{KELVANE_ID, "a"}, {"more", std::string(20'000, 'x')}}).xml;
  directory_.write(systemFile("a-text"), "these are the services");
  directory_.write(systemFile("b-empty"), "");
  directory_.write(systemFile("c-binary"), "bplist00");
  directory_.write(systemFile("d-large"), whole.substr(0, whole.size() - 10));  // not read ahead
  directory_.write(systemFile("e-larger"), std::string(std::size_t{5} << 20, ' '));
  std::filesystem::create_symlink("nowhere", path("f-dangling"));
  std::filesystem::create_directories(path("g-directory"));
  EXPECT_TRUE(kelvane()->copyServices().empty());
  for (const char* name :
       {"a-text", "b-empty", "c-binary", "d-large", "e-larger", "f-dangling", "g-directory"})
    EXPECT_EQ(log_.count(3, failed + path("/") + name + ": "), 1U) << name;
  EXPECT_EQ(log_.count(3, ""), 7U);
}

TEST_F(Descriptors, ATextFileIsSkippedWithOneLevelThreeLineAndTheScanGoesOn) {
  directory_.write(systemFile("a.txt"), "these are the services:\nnone\n");
  expectSkipped(failed);
}

TEST_F(Descriptors, ADescriptorWhoseRootIsAnArrayIsSkippedWithOneLevelThreeLineAndTheScanGoesOn) {
  descriptor(systemFile("a.plist"), Array{Dictionary{{KELVANE_ID, "a"}}});
  expectSkipped(std::string(failed) + "(null)");
}

TEST_F(Descriptors, AnEmptyFileIsSkipped) {
  directory_.write(systemFile("a.plist"), "");
  expectSkipped(failed);
}

TEST_F(Descriptors, ATruncatedFileIsSkipped) {
  const std::string whole = propertyListXML(Dictionary{{KELVANE_ID, "a"}}).xml;
  directory_.write(systemFile("a.plist"), whole.substr(0, whole.size() / 2));
  expectSkipped(failed);
}

TEST_F(Descriptors, AFileOfTenMegabytesIsSkipped) {
  directory_.write(systemFile("a.plist"), std::string(std::size_t{10} << 20, ' '));
  expectSkipped(failed);
}

TEST_F(Descriptors, AFIFOIsSkippedWithoutWaiting) {
  makeFolder();
  ASSERT_EQ(::mkfifo(path("a.plist").c_str(), 0600), 0);
  expectSkipped(failed);
}

TEST_F(Descriptors, LinksInALoopAreSkipped) {
  makeFolder();
  std::filesystem::create_symlink("a.plist", path("a.plist"));
  expectSkipped(failed);
}

TEST_F(Descriptors, ALinkToTheFolderAboveIsSkippedAndNotFollowed) {
  makeFolder();
  std::filesystem::create_directory_symlink("..", path("up"));
  expectSkipped(failed);
}

TEST_F(Descriptors, AnUnreadableFileIsSkipped) {
  makeFolder();
  // A socket cannot be read by anyone, root included.
  const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path("a.plist").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  expectSkipped(failed);
  ::close(socket);
}

TEST_F(Descriptors, AFolderThatNamesItselfADescriptorIsSkipped) {
  std::filesystem::create_directories(path("a.plist"));
  expectSkipped(failed);
}

}  // namespace
}  // namespace kelvane
