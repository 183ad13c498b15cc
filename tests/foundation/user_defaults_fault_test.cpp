#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "platform/foundation/sqlite_handle.h"
#include "platform/foundation/user_defaults.h"
#include "tests/foundation/faulty_vfs.h"
#include "tests/foundation/suite_test.h"

namespace kelvane {
namespace {

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// Runs SQL on a database of its own connection, as another program would.
void runSQL(const std::string& path, const std::string& sql) {
  sqlite3* opened = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &opened), SQLITE_OK);
  const foundation::Connection connection(opened);
  ASSERT_EQ(sqlite3_exec(opened, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
      << sqlite3_errmsg(opened);
}

class DamagedSuiteTest : public test::SuiteTest {
 protected:
  /// A suite with 1,000 entries, its log written back into the file.
  void makeSuite() {
    Dictionary state;
    for (int i = 0; i < 1000; ++i) state.set("entry" + std::to_string(i), std::string(100, 'x'));
    openSuite()->setObject(state, "key");
    ASSERT_FALSE(std::filesystem::exists(path("-wal")));
  }

  /// The file as it stands is set aside unchanged under `aside`, and an empty suite that works takes its
  /// place.
  void expectSetAside(const std::string& aside = ".damaged-1") {
    const std::string content = contentOf(path());
    const auto defaults = openSuite();
    ASSERT_NE(defaults, nullptr);
    EXPECT_TRUE(defaults->objectForKey("key").isNothing());
    EXPECT_TRUE(contentOf(path(aside)) == content);
    const auto notices = defaults->takeNotices();
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_NE(notices[0].find(" and is set aside as " + path(aside)), std::string::npos) << notices[0];
    EXPECT_TRUE(defaults->takeNotices().empty());
    defaults->setObject(1, "new");
    EXPECT_EQ(stored("new"), Value(1));
  }
};

TEST_F(DamagedSuiteTest, AFileThatIsNoDatabaseIsSetAside) {
  directory_.write("suite.db", "KELVANE_CACHE_ENABLED = true\n");
  expectSetAside();
}

TEST_F(DamagedSuiteTest, ADatabaseOfAnotherProgramIsSetAsideUnchanged) {
  runSQL(path(), "CREATE TABLE keys(a); INSERT INTO keys VALUES(1)");
  expectSetAside();
}

TEST_F(DamagedSuiteTest, AnEmptyDatabaseWithAnotherProgramsMarkIsSetAside) {
  runSQL(path(), "PRAGMA application_id=5");
  expectSetAside();
}

TEST_F(DamagedSuiteTest, AnUnknownVersionOfTheLayoutIsSetAside) {
  makeSuite();
  runSQL(path(), "PRAGMA user_version=3");
  expectSetAside();
}

TEST_F(DamagedSuiteTest, ALayoutWithATriggerIsSetAside) {
  makeSuite();
  runSQL(path(), "CREATE TRIGGER t AFTER INSERT ON keys BEGIN DELETE FROM entries; END");
  expectSetAside();
}

TEST_F(DamagedSuiteTest, ATruncatedFileIsSetAside) {
  makeSuite();
  const std::uintmax_t size = std::filesystem::file_size(path());
  int number = 0;
  for (const std::uintmax_t length :
       {size - 1, size - 4096, size / 2, std::uintmax_t{4096}, std::uintmax_t{100}}) {
    std::filesystem::remove(path());
    makeSuite();
    ASSERT_EQ(std::filesystem::file_size(path()), size);
    std::filesystem::resize_file(path(), length);
    expectSetAside(".damaged-" + std::to_string(++number));
  }
}

TEST_F(DamagedSuiteTest, AFileWithGarbageInItsPagesIsSetAside) {
  makeSuite();
  const std::uintmax_t pages = std::filesystem::file_size(path()) / 4096;
  ASSERT_GT(pages, 20u);
  std::fstream file(path(), std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(pages / 2 * 4096));
  file << std::string(4096, '\x5a');
  file.close();
  expectSetAside();
}

TEST_F(DamagedSuiteTest, EachDamagedFileIsKeptUnderItsOwnName) {
  for (int number = 1; number <= 3; ++number) {
    std::filesystem::remove(path());
    directory_.write("suite.db", "damaged in way " + std::to_string(number));
    expectSetAside(".damaged-" + std::to_string(number));
  }
  EXPECT_EQ(contentOf(path(".damaged-1")), "damaged in way 1");
}

TEST_F(DamagedSuiteTest, TheLogIsSetAsideWithItsDatabase) {
  makeSuite();
  const std::string copy = directory_ / "copy";
  {
    const auto defaults = openSuite();
    defaults->setObject("in the log", "other");
    std::filesystem::copy_file(path("-wal"), copy);
  }
  std::filesystem::rename(copy, path("-wal"));
  const std::string log = contentOf(path("-wal"));
  ASSERT_FALSE(log.empty());
  directory_.write("suite.db", "no database");
  expectSetAside();
  EXPECT_TRUE(contentOf(path(".damaged-1-wal")) == log);
}

TEST_F(DamagedSuiteTest, ADatabaseThatItsLogCanRepairIsNotSetAside) {
  const std::string copy = directory_ / "copy";
  {
    const auto defaults = openSuite();
    defaults->setObject("in the log", "key");
    std::filesystem::copy_file(path("-wal"), copy);
  }
  std::filesystem::rename(copy, path("-wal"));
  std::filesystem::resize_file(path(), std::filesystem::file_size(path()) - 100);
  const auto defaults = openSuite();
  EXPECT_EQ(defaults->objectForKey("key"), Value("in the log"));
  EXPECT_TRUE(defaults->takeNotices().empty());
}

// A frame that a power loss has torn behind the log's end must not be completed by the next one's pieces.
TEST_F(DamagedSuiteTest, WhatAnInterruptedProcessLeftInTheLogIsInTheFileOnceItIsOpen) {
  const std::string copy = directory_ / "copy";
  {
    const auto defaults = openSuite();
    defaults->setObject("in the log", "key");
    std::filesystem::copy_file(path("-wal"), copy);
  }
  std::filesystem::rename(copy, path("-wal"));
  ASSERT_GT(logSize(), 0U);
  const auto defaults = openSuite();
  EXPECT_EQ(logSize(), 0U);
  EXPECT_EQ(defaults->objectForKey("key"), Value("in the log"));
}

TEST_F(DamagedSuiteTest, ALogWhoseDatabaseIsEmptyOrGoneIsSetAsideAndNotThrownAway) {
  const std::string copy = directory_ / "copy";
  {
    const auto defaults = openSuite();
    defaults->setObject("in the log", "key");
    std::filesystem::copy_file(path("-wal"), copy);
  }
  const std::string log = contentOf(copy);
  std::filesystem::copy_file(copy, path("-wal"));
  std::filesystem::resize_file(path(), 0);
  expectSetAside();
  EXPECT_TRUE(contentOf(path(".damaged-1-wal")) == log);

  std::filesystem::remove(path());
  std::filesystem::copy_file(copy, path("-wal"));
  EXPECT_TRUE(stored("key").isNothing());
  EXPECT_TRUE(contentOf(path(".damaged-2-wal")) == log);
}

TEST_F(DamagedSuiteTest, AFileCutOffWhileItWasBegunIsTakenBackByItsJournalAndNotSetAside) {
  makeSuite();
  std::filesystem::resize_file(path(), 512);
  // A journal of no pages, of a database that had none, in sectors of 512 bytes and pages of 4,096.
  constexpr std::string_view header(
      "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7\0\0\0\0\0\0\0\0\0\0\0\0\0\0\2\0\0\0\x10\0", 28);
  directory_.write("suite.db-journal", std::string(header) + std::string(512 - header.size(), '\0'));
  const auto defaults = openSuite();
  EXPECT_TRUE(defaults->takeNotices().empty());
  defaults->setObject(1, "new");
  EXPECT_EQ(stored("new"), Value(1));
}

TEST_F(DamagedSuiteTest, AnEmptyFileBeginsTheSuite) {
  directory_.write("suite.db", "");
  const auto defaults = openSuite();
  defaults->setObject(1, "key");
  EXPECT_TRUE(defaults->takeNotices().empty());
  EXPECT_EQ(stored("key"), Value(1));
}

TEST_F(DamagedSuiteTest, ARowThatWasChangedIsLeftOutAndNamed) {
  openSuite()->setObject(Dictionary{{"bad", 2}, {"good", 1}}, "key");
  openSuite()->setObject(3, "whole");
  runSQL(path(), "UPDATE entries SET value=substr(value,1,length(value)-1)||x'7f' WHERE entry=x'626164'");
  runSQL(path(), "UPDATE keys SET value=substr(value,1,length(value)-1)||x'7f' WHERE key=x'77686f6c65'");
  const auto defaults = openSuite();
  EXPECT_EQ(defaults->objectForKey("key"), Value(Dictionary{{"good", 1}}));
  EXPECT_TRUE(defaults->objectForKey("whole").isNothing());
  const std::vector<std::string> expected = {path() + ": the value for \"whole\" is damaged and is left out",
                                             path() + ": the value for \"bad\" is damaged and is left out"};
  EXPECT_EQ(defaults->takeNotices(), expected);
  defaults->setObject(Dictionary{{"bad", 4}, {"good", 1}}, "key");
  defaults->setObject(5, "whole");
  EXPECT_EQ(stored("key"), Value(Dictionary{{"bad", 4}, {"good", 1}}));
  EXPECT_EQ(stored("whole"), Value(5));
}

TEST_F(DamagedSuiteTest, ARowUnderAnotherNameThanItWasWrittenToIsLeftOutAndNamed) {
  openSuite()->setObject(Dictionary{{"a", 1}, {"b", 2}}, "key");
  runSQL(path(), "UPDATE entries SET entry=x'63' WHERE entry=x'62'");
  const auto defaults = openSuite();
  EXPECT_EQ(defaults->objectForKey("key"), Value(Dictionary{{"a", 1}}));
  EXPECT_EQ(defaults->takeNotices(),
            std::vector<std::string>{path() + ": the value for \"c\" is damaged and is left out"});
}

TEST_F(DamagedSuiteTest, ADictionaryWhoseOwnRowIsDamagedKeepsItsEntries) {
  openSuite()->setObject(Dictionary{{"a", 1}, {"b", 2}}, "key");
  runSQL(path(), "UPDATE keys SET value=x'00'");
  const auto defaults = openSuite();
  EXPECT_EQ(defaults->objectForKey("key"), Value(Dictionary{{"a", 1}, {"b", 2}}));
  EXPECT_EQ(defaults->takeNotices().size(), 1u);
}

// --- the layout without checksums ---

class OldSuiteTest : public DamagedSuiteTest {
 protected:
  /// Stores {"a": 1, "b": "two"} under "key" and true under "whole", in version 1 of the layout.
  void makeOldSuite() {
    openSuite()->setObject(Dictionary{{"a", 1}}, "key");
    runSQL(path(),
           "PRAGMA user_version=1; DELETE FROM keys; DELETE FROM entries; INSERT INTO keys "
           "VALUES(x'6b6579',NULL),"
           "(x'77686f6c65',x'4b56410102'); INSERT INTO entries VALUES(x'6b6579',x'61',x'4b5641010302'),"
           "(x'6b6579',x'62',x'4b5641010503'||CAST('two' AS BLOB))");
  }
  const Dictionary content_{{"a", 1}, {"b", "two"}};
};

TEST_F(OldSuiteTest, IsReadAndBroughtToTheLayoutWithChecksums) {
  makeOldSuite();
  {
    const auto defaults = openSuite();
    EXPECT_EQ(defaults->objectForKey("key"), Value(content_));
    EXPECT_EQ(defaults->objectForKey("whole"), Value(true));
    EXPECT_TRUE(defaults->takeNotices().empty());
  }
  runSQL(path(), "UPDATE entries SET value=substr(value,1,length(value)-1)||x'7f' WHERE entry=x'62'");
  EXPECT_EQ(stored("key"), Value(Dictionary{{"a", 1}}));
}

TEST_F(OldSuiteTest, IsUsedAsItIsWhileItCannotBeWritten) {
  makeOldSuite();
  test::FaultyVFS vfs;
  vfs.write_result = SQLITE_FULL;
  const auto defaults = openSuite({.recreatable = {}, .vfs = test::FaultyVFS::name});
  EXPECT_EQ(defaults->objectForKey("key"), Value(content_));
  vfs.write_result = SQLITE_OK;
  ASSERT_TRUE(defaults->setEntry(3, "c", "key"));
  Dictionary content = content_;
  content.set("c", 3);
  EXPECT_EQ(stored("key"), Value(content));  // converts it to the layout with checksums
  ASSERT_TRUE(defaults->setEntry(4, "d", "key"));
  content.set("d", 4);
  EXPECT_EQ(stored("key"), Value(content));
  EXPECT_TRUE(openSuite()->takeNotices().empty());
}

class FaultySuiteTest : public test::SuiteTest {
 protected:
  std::shared_ptr<UserDefaults> openFaulty(std::set<std::string, std::less<>> recreatable = {}) {
    return openSuite({.recreatable = std::move(recreatable), .vfs = test::FaultyVFS::name});
  }
  test::FaultyVFS vfs_;
};

TEST_F(FaultySuiteTest, AValueIsSyncedBeforeSetObjectReturns) {
  const auto defaults = openFaulty();
  for (const Value& value : {Value(Dictionary{{"a", 1}}), Value(Dictionary{{"a", 2}}), Value(5), Value()}) {
    vfs_.log_syncs = 0;
    defaults->setObject(value, "key");
    EXPECT_GE(vfs_.log_syncs, 1) << value.description();
  }
}

TEST_F(FaultySuiteTest, ARecreatableEntryIsStoredWithoutASync) {
  const auto defaults = openFaulty({"recent"});
  defaults->setObject(Dictionary{{"told", 1}}, "key");
  vfs_.log_syncs = 0;
  defaults->setObject(Dictionary{{"told", 1}, {"recent", 1}}, "key");
  defaults->setObject(Dictionary{{"told", 1}, {"recent", 2}}, "key");
  defaults->setObject(Dictionary{{"told", 1}}, "key");
  defaults->setObject(Dictionary{{"told", 1}, {"recent", 3}}, "key");
  EXPECT_EQ(vfs_.log_syncs, 0);
  EXPECT_EQ(stored("key"), Value(Dictionary{{"told", 1}, {"recent", 3}}));
}

TEST_F(FaultySuiteTest, ARecreatableEntryChangedTogetherWithAnotherIsSynced) {
  const auto defaults = openFaulty({"recent"});
  defaults->setObject(Dictionary{{"told", 1}, {"recent", 1}}, "key");
  vfs_.log_syncs = 0;
  defaults->setObject(Dictionary{{"told", 2}, {"recent", 2}}, "key");
  EXPECT_EQ(vfs_.log_syncs, 1);
  defaults->setObject(Dictionary{{"told", 2}, {"recent", 3}}, "key");
  EXPECT_EQ(vfs_.log_syncs, 1);
  defaults->setObject(Dictionary{{"told", 3}, {"recent", 3}}, "key");
  EXPECT_EQ(vfs_.log_syncs, 2);
}

TEST_F(FaultySuiteTest, AChangeThatOnlyTurnsOutWithinTheTransactionIsSynced) {
  const auto defaults = openFaulty({"recent"});
  defaults->setObject(Dictionary{{"told", 1}}, "key");
  openSuite()->setObject(Dictionary{{"told", 2}}, "key");
  vfs_.log_syncs = 0;
  // As far as this object knows, only "recent" changes.
  defaults->setObject(Dictionary{{"told", 1}, {"recent", 1}}, "key");
  EXPECT_GE(vfs_.log_syncs, 1);
  EXPECT_EQ(stored("key"), Value(Dictionary{{"told", 1}, {"recent", 1}}));
}

TEST_F(FaultySuiteTest, AValueThatCannotBeWrittenIsHeldAndStoredBySynchronizeLater) {
  const auto defaults = openFaulty();
  defaults->setObject(Dictionary{{"a", 1}, {"b", 1}}, "key");
  vfs_.write_result = SQLITE_FULL;
  defaults->setObject(Dictionary{{"a", 2}}, "key");
  defaults->setObject(Value(5), "other");
  EXPECT_EQ(defaults->lastError(), path() + ": database or disk is full");
  EXPECT_EQ(defaults->objectForKey("key"), Value(Dictionary{{"a", 2}}));
  EXPECT_FALSE(defaults->synchronize());
  EXPECT_EQ(stored("key"), Value(Dictionary{{"a", 1}, {"b", 1}}));
  vfs_.write_result = SQLITE_OK;
  EXPECT_TRUE(defaults->synchronize());
  EXPECT_EQ(defaults->lastError(), "");
  EXPECT_EQ(stored("key"), Value(Dictionary{{"a", 2}}));
  EXPECT_EQ(stored("other"), Value(5));
}

TEST_F(FaultySuiteTest, AnEntryThatCannotBeWrittenIsRefusedAndChangesNothing) {
  const auto defaults = openFaulty();
  ASSERT_TRUE(defaults->setEntry(1, "a", "key"));
  const std::size_t footprint = defaults->footprintOf("key");
  vfs_.write_result = SQLITE_FULL;
  EXPECT_FALSE(defaults->setEntry(2, "a", "key"));
  EXPECT_FALSE(defaults->setEntry(2, "b", "key"));
  EXPECT_FALSE(defaults->setEntry(Value(), "a", "key"));
  EXPECT_FALSE(defaults->setEntry(1, "a", "other"));
  EXPECT_EQ(defaults->lastError(), path() + ": database or disk is full");
  EXPECT_EQ(defaults->objectForKey("key"), Value(Dictionary{{"a", 1}}));
  EXPECT_TRUE(defaults->objectForKey("other").isNothing());
  EXPECT_EQ(defaults->footprintOf("key"), footprint);
  vfs_.write_result = SQLITE_OK;
  EXPECT_TRUE(defaults->synchronize());
  EXPECT_EQ(stored("key"), Value(Dictionary{{"a", 1}}));
}

TEST_F(FaultySuiteTest, ALogWithoutRoomBeginsAgainForTheNextEntry) {
  const auto defaults = openFaulty();
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(defaults->setEntry(i, "a", "key"));
  vfs_.most_log_bytes = static_cast<sqlite3_int64>(logSize());
  for (int i = 20; i < 200; ++i) ASSERT_TRUE(defaults->setEntry(i, "a", "key")) << i;
  EXPECT_EQ(stored("key"), Value(Dictionary{{"a", 199}}));
}

TEST_F(FaultySuiteTest, AnEntryFoundADamagedFileGoesIntoTheNextWithWhatIsHeld) {
  const auto defaults = openFaulty();
  ASSERT_TRUE(defaults->setEntry("before", "a", "key"));
  openSuite()->setObject(2, "theirs");
  vfs_.next_read_result = SQLITE_CORRUPT;
  EXPECT_TRUE(defaults->setEntry("after", "b", "key"));
  EXPECT_TRUE(std::filesystem::exists(path(".damaged-1")));
  EXPECT_EQ(stored("key"), Value(Dictionary{{"a", "before"}, {"b", "after"}}));
}

TEST_F(FaultySuiteTest, ARemovalThatCannotBeWrittenIsStoredLater) {
  const auto defaults = openFaulty();
  defaults->setObject(Dictionary{{"a", 1}}, "key");
  vfs_.write_result = SQLITE_IOERR_WRITE;
  defaults->setObject(Value(), "key");
  EXPECT_TRUE(defaults->objectForKey("key").isNothing());
  EXPECT_EQ(stored("key"), Value(Dictionary{{"a", 1}}));
  vfs_.write_result = SQLITE_OK;
  EXPECT_TRUE(defaults->synchronize());
  EXPECT_TRUE(stored("key").isNothing());
}

TEST_F(FaultySuiteTest, WhatOthersStoredIsTakenInAroundWhatCouldNotBeWritten) {
  const auto defaults = openFaulty();
  vfs_.write_result = SQLITE_FULL;
  defaults->setObject("mine", "mine");
  openSuite()->setObject("theirs", "theirs");
  EXPECT_FALSE(defaults->synchronize());
  EXPECT_EQ(defaults->objectForKey("mine"), Value("mine"));
  EXPECT_EQ(defaults->objectForKey("theirs"), Value("theirs"));
  vfs_.write_result = SQLITE_OK;
  EXPECT_TRUE(defaults->synchronize());
  EXPECT_EQ(stored("mine"), Value("mine"));
  EXPECT_EQ(stored("theirs"), Value("theirs"));
}

TEST_F(FaultySuiteTest, AFileFoundDamagedLaterIsSetAsideAndWhatIsHeldGoesIntoTheNext) {
  const auto defaults = openFaulty();
  defaults->setObject(Dictionary{{"a", 1}}, "key");
  defaults->setObject("text", "other");
  openSuite()->setObject(2, "theirs");
  vfs_.next_read_result = SQLITE_CORRUPT;
  EXPECT_TRUE(defaults->synchronize());
  EXPECT_EQ(vfs_.next_read_result, SQLITE_OK);
  EXPECT_TRUE(std::filesystem::exists(path(".damaged-1")));
  EXPECT_EQ(defaults->takeNotices().size(), 1u);
  EXPECT_EQ(stored("key"), Value(Dictionary{{"a", 1}}));
  EXPECT_EQ(stored("other"), Value("text"));
}

TEST_F(FaultySuiteTest, AFileFoundDamagedWhileWritingIsSetAsideAndTheValueGoesIntoTheNext) {
  const auto defaults = openFaulty();
  defaults->setObject("before", "other");
  openSuite()->setObject(2, "theirs");
  vfs_.next_read_result = SQLITE_CORRUPT;
  defaults->setObject("after", "key");
  EXPECT_EQ(defaults->lastError(), "");
  EXPECT_TRUE(std::filesystem::exists(path(".damaged-1")));
  EXPECT_EQ(stored("key"), Value("after"));
  EXPECT_EQ(stored("other"), Value("before"));
}

TEST_F(FaultySuiteTest, AFileThatWasRemovedIsBegunAgainWithWhatIsHeld) {
  const auto defaults = openFaulty();
  defaults->setObject(Dictionary{{"a", 1}}, "key");
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path(suffix));
  EXPECT_TRUE(defaults->synchronize());
  EXPECT_EQ(stored("key"), Value(Dictionary{{"a", 1}}));
  defaults->setObject(2, "other");
  EXPECT_EQ(stored("other"), Value(2));
}

}  // namespace
}  // namespace kelvane
