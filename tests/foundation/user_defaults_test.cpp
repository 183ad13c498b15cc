#include "platform/foundation/user_defaults.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "platform/foundation/footprint.h"
#include "tests/foundation/suite_test.h"

namespace kelvane {
namespace {

using UserDefaultsTest = test::SuiteTest;

constexpr std::uintmax_t log_frame = 4096 + 24;

TEST_F(UserDefaultsTest, AKeyThatWasNeverSetIsNothing) {
  EXPECT_TRUE(openSuite()->objectForKey("key").isNothing());
  EXPECT_TRUE(openSuite()->takeNotices().empty());
}

TEST_F(UserDefaultsTest, EveryKindOfValueIsStoredAsItIs) {
  const Dictionary values{{"true", true},
                          {"one", 1},
                          {"unsigned", std::numeric_limits<std::uint64_t>::max()},
                          {"minus", -1},
                          {"double", 0.1},
                          {"text", "a\nb"},
                          {"data", Data({0, 255})},
                          {"date", Date{-1}},
                          {"array", Array{1, Array{"x"}}},
                          {"dictionary", Dictionary{{"", 1}, {"inner", Dictionary{{"deep", Array()}}}}}};
  auto defaults = openSuite();
  for (const auto& [key, value] : values) defaults->setObject(value, key);
  EXPECT_TRUE(defaults->synchronize());
  defaults.reset();
  defaults = openSuite();
  for (const auto& [key, value] : values) {
    EXPECT_EQ(defaults->objectForKey(key), value) << key;
    EXPECT_EQ(defaults->objectForKey(key).held().index(), value.held().index()) << key;
  }
}

TEST_F(UserDefaultsTest, AValueIsStoredWhenSetObjectReturns) {
  const auto defaults = openSuite();
  defaults->setObject("value", "key");
  EXPECT_EQ(stored("key"), Value("value"));
}

TEST_F(UserDefaultsTest, AValueSetByAProcessThatIsKilledIsThere) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const auto defaults = UserDefaults::initWithSuiteName("suite", directory_.path());
    if (defaults != nullptr) defaults->setObject(Dictionary{{"entry", 7}}, "key");
    ::kill(::getpid(), SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(stored("key"), Value(Dictionary{{"entry", 7}}));
  EXPECT_FALSE(std::filesystem::exists(path(".damaged-1")));
}

TEST_F(UserDefaultsTest, NothingRemovesTheKey) {
  const auto defaults = openSuite();
  for (const Value& value : {Value(1), Value(Dictionary{{"a", 1}})}) {
    defaults->setObject(value, "key");
    defaults->setObject(Value(), "key");
    EXPECT_TRUE(defaults->objectForKey("key").isNothing());
    EXPECT_TRUE(stored("key").isNothing());
  }
  defaults->setObject(Dictionary(), "key");
  EXPECT_EQ(stored("key"), Value(Dictionary()));
}

TEST_F(UserDefaultsTest, AnEmptyDictionaryIsNotAbsent) {
  const auto defaults = openSuite();
  defaults->setObject(Dictionary(), "begun");
  defaults->setObject(Dictionary{{"a", 1}}, "emptied");
  defaults->setObject(Dictionary(), "emptied");
  EXPECT_EQ(stored("begun"), Value(Dictionary()));
  EXPECT_EQ(stored("emptied"), Value(Dictionary()));
  EXPECT_TRUE(stored("absent").isNothing());
}

TEST_F(UserDefaultsTest, ADictionaryThatGivesWayToANumberLeavesNoEntryBehind) {
  const auto defaults = openSuite();
  defaults->setObject(Dictionary{{"a", 1}, {"b", 2}}, "key");
  defaults->setObject(5, "key");
  EXPECT_EQ(stored("key"), Value(5));
  defaults->setObject(Dictionary{{"b", 3}}, "key");
  EXPECT_EQ(stored("key"), Value(Dictionary{{"b", 3}}));
}

TEST_F(UserDefaultsTest, EntriesAreAddedChangedAndRemovedOneByOne) {
  const auto defaults = openSuite();
  defaults->setObject(Dictionary{{"b", 1}, {"d", 2}, {"f", 3}}, "key");
  for (const Dictionary& next : {Dictionary{{"a", 0}, {"b", 1}, {"d", 4}}, Dictionary{{"d", 4}, {"g", 1}},
                                 Dictionary{{"c", 1}}, Dictionary(), Dictionary{{"a", 1}}}) {
    defaults->setObject(next, "key");
    EXPECT_EQ(stored("key"), Value(next));
  }
}

TEST_F(UserDefaultsTest, WritingOneEntryOfAThousandWritesOneRow) {
  Dictionary state;
  for (int i = 0; i < 1000; ++i) state.set("entry" + std::to_string(i), std::string(100, 'x'));
  const auto defaults = openSuite();
  defaults->setObject(state, "key");
  const std::uintmax_t before = logSize();
  ASSERT_GT(before, 25 * log_frame);
  state.set("entry500", std::string(100, 'y'));
  defaults->setObject(state, "key");
  EXPECT_EQ(logSize() - before, log_frame);
  EXPECT_EQ(stored("key"), Value(state));
}

TEST_F(UserDefaultsTest, AnEntryIsSetAndRemovedAmongOthers) {
  const auto defaults = openSuite();
  EXPECT_TRUE(defaults->setEntry(1, "a", "key"));
  EXPECT_TRUE(defaults->setEntry("two", "b", "key"));
  EXPECT_TRUE(defaults->setEntry(3, "a", "key"));
  EXPECT_EQ(defaults->objectForKey("key"), Value(Dictionary{{"a", 3}, {"b", "two"}}));
  EXPECT_EQ(stored("key"), Value(Dictionary{{"a", 3}, {"b", "two"}}));
  EXPECT_TRUE(defaults->setEntry(Value(), "a", "key"));
  EXPECT_TRUE(defaults->setEntry(Value(), "b", "key"));
  EXPECT_EQ(defaults->objectForKey("key"), Value(Dictionary()));
  EXPECT_EQ(stored("key"), Value(Dictionary()));
}

TEST_F(UserDefaultsTest, AnEntryBeginsADictionaryInPlaceOfWhateverElseIsThere) {
  const auto defaults = openSuite();
  defaults->setObject("text", "key");
  EXPECT_TRUE(defaults->setEntry(1, "a", "key"));
  EXPECT_EQ(stored("key"), Value(Dictionary{{"a", 1}}));
  EXPECT_TRUE(defaults->setEntry(Value(), "a", "fresh"));
  EXPECT_EQ(defaults->objectForKey("fresh"), Value(Dictionary()));
  EXPECT_EQ(stored("fresh"), Value(Dictionary()));
}

TEST_F(UserDefaultsTest, AnEntryIsSetBesideWhatAnotherStoredSince) {
  const auto defaults = openSuite();
  EXPECT_TRUE(defaults->setEntry(1, "a", "key"));
  EXPECT_TRUE(openSuite()->setEntry(2, "b", "key"));
  EXPECT_TRUE(defaults->setEntry(3, "c", "key"));
  EXPECT_EQ(defaults->objectForKey("key"), Value(Dictionary{{"a", 1}, {"b", 2}, {"c", 3}}));
  EXPECT_EQ(stored("key"), Value(Dictionary{{"a", 1}, {"b", 2}, {"c", 3}}));
}

TEST_F(UserDefaultsTest, TheFootprintFollowsEachChangeAsIfItWereCountedAgain) {
  const auto defaults = openSuite();
  const auto expectCounted = [&] {
    EXPECT_EQ(defaults->footprintOf("key"), foundation::footprint(defaults->objectForKey("key")));
  };
  expectCounted();
  EXPECT_TRUE(defaults->setEntry(Array{1, "two"}, "a", "key"));
  expectCounted();
  EXPECT_TRUE(defaults->setEntry("text", "b", "key"));
  EXPECT_TRUE(defaults->setEntry(Dictionary{{"x", 1}}, "a", "key"));
  expectCounted();
  EXPECT_TRUE(defaults->setEntry(Value(), "b", "key"));
  EXPECT_TRUE(defaults->setEntry(Value(), "absent", "key"));
  expectCounted();
  EXPECT_TRUE(openSuite()->setEntry("theirs", "c", "key"));
  EXPECT_TRUE(defaults->setEntry(5, "d", "key"));
  expectCounted();
  defaults->setObject(7, "key");
  expectCounted();
}

// --- room ---

class RoomTest : public test::SuiteTest {
 protected:
  static constexpr SuiteRoom room = {.file = 1 << 20, .log = 1 << 18};
  std::shared_ptr<UserDefaults> openRoomy() {
    return openSuite({.recreatable = {}, .vfs = {}, .room = room});
  }
  /// Bytes that the file system has allocated to the file.
  [[nodiscard]] std::int64_t occupied(const char* suffix) const {
    struct stat status {};
    EXPECT_EQ(::stat(path(suffix).c_str(), &status), 0);
    return std::min<std::int64_t>(status.st_size, status.st_blocks * 512);
  }
  void expectRoom(std::int64_t file = room.file) const {
    EXPECT_EQ(occupied(""), file);
    EXPECT_EQ(occupied("-wal"), room.log);
  }
};

TEST_F(RoomTest, IsMadeBeforehandAndIsThereStillAfterManyWrites) {
  const auto defaults = openRoomy();
  defaults->keepRoom();
  expectRoom();
  for (int i = 0; i < 3000; ++i) ASSERT_TRUE(defaults->setEntry(i, "a", "key"));  // several checkpoints
  EXPECT_EQ(occupied(""), room.file);
}

TEST_F(RoomTest, IsMadeByAWriteAsWell) {
  const auto defaults = openRoomy();
  EXPECT_TRUE(defaults->setEntry(1, "a", "key"));
  expectRoom();
}

TEST_F(RoomTest, GrowsWithTheContentSoThatAQuarterIsAlwaysFree) {
  const auto defaults = openRoomy();
  const std::string large(100'000, 'x');
  for (int i = 0; i < 9; ++i) ASSERT_TRUE(defaults->setEntry(large, std::to_string(i), "key"));
  EXPECT_EQ(occupied(""), room.file / 4 * 5);
  EXPECT_TRUE(defaults->synchronize());
}

TEST_F(RoomTest, OutlivesAKillAndTheNextOpening) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const auto defaults = openRoomy();
    if (!defaults->setEntry(1, "a", "key")) ::_exit(1);
    ::kill(::getpid(), SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  const auto defaults = openRoomy();
  expectRoom();
  EXPECT_TRUE(defaults->setEntry(2, "b", "key"));
  expectRoom();
  EXPECT_EQ(defaults->objectForKey("key"), Value(Dictionary{{"a", 1}, {"b", 2}}));
}

TEST_F(RoomTest, IsMadeAgainForAFileWithHoles) {
  { EXPECT_TRUE(openRoomy()->setEntry(1, "a", "key")); }
  std::filesystem::resize_file(path(), 8 * 4096);
  std::filesystem::resize_file(path(), room.file);
  ASSERT_LT(occupied(""), room.file);
  const auto defaults = openRoomy();
  defaults->keepRoom();
  expectRoom();
  EXPECT_EQ(defaults->objectForKey("key"), Value(Dictionary{{"a", 1}}));
}

TEST_F(UserDefaultsTest, SettingWhatIsHeldWritesNothing) {
  const Dictionary value{{"a", 1}, {"b", Dictionary{{"c", Array{0.5}}}}};
  const auto defaults = openSuite();
  defaults->setObject(value, "key");
  const std::uintmax_t before = logSize();
  defaults->setObject(value, "key");
  defaults->setObject(Dictionary{{"a", 1}, {"b", Dictionary{{"c", Array{0.5}}}}}, "key");
  defaults->setObject(Value(), "absent");
  EXPECT_EQ(logSize(), before);
}

TEST_F(UserDefaultsTest, ANumberOfAnotherKindIsAChange) {
  const auto defaults = openSuite();
  for (const Value& value : {Value(1), Value(true), Value(1.0), Value(1u)}) {
    defaults->setObject(Dictionary{{"a", value}, {"in", Array{value}}}, "dictionary");
    defaults->setObject(value, "key");
    EXPECT_EQ(stored("key").held().index(), value.held().index());
    const Value dictionary = stored("dictionary");
    EXPECT_EQ((*dictionary.dictionary())["a"].held().index(), value.held().index());
    EXPECT_EQ((*(*dictionary.dictionary())["in"].array())[0].held().index(), value.held().index());
  }
}

TEST_F(UserDefaultsTest, KeysAreAnyBytes) {
  const std::string odd("a\0b\xff'\"", 6);
  const auto defaults = openSuite();
  defaults->setObject(1, "");
  defaults->setObject(Dictionary{{odd, 2}, {"", 3}}, odd);
  EXPECT_EQ(stored(""), Value(1));
  EXPECT_EQ(stored(odd), Value(Dictionary{{odd, 2}, {"", 3}}));
}

TEST_F(UserDefaultsTest, WhatAnotherStoredIsTakenInBySynchronize) {
  const auto one = openSuite();
  const auto other = openSuite();
  other->setObject(Dictionary{{"a", 1}}, "key");
  EXPECT_TRUE(one->objectForKey("key").isNothing());
  EXPECT_TRUE(one->synchronize());
  EXPECT_EQ(one->objectForKey("key"), Value(Dictionary{{"a", 1}}));
  other->setObject(Value(), "key");
  EXPECT_TRUE(one->synchronize());
  EXPECT_TRUE(one->objectForKey("key").isNothing());
}

/// A process that stores a number, with enough other data that the log restarts now and then.
class OtherProcess {
 public:
  explicit OtherProcess(const std::string& directory) {
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair_.data()) != 0) std::abort();
    child_ = ::fork();
    if (child_ == 0) serve(directory);
    ::close(pair_[1]);
  }
  ~OtherProcess() {
    ::close(pair_[0]);
    ::waitpid(child_, nullptr, 0);
  }
  OtherProcess(const OtherProcess&) = delete;
  OtherProcess& operator=(const OtherProcess&) = delete;

  [[nodiscard]] bool store(int number) const {
    int stored = -1;
    return ::send(pair_[0], &number, sizeof number, MSG_NOSIGNAL) == sizeof number &&
           ::recv(pair_[0], &stored, sizeof stored, 0) == sizeof stored && stored == number;
  }

 private:
  [[noreturn]] void serve(const std::string& directory) const {
    ::close(pair_[0]);
    const auto defaults = UserDefaults::initWithSuiteName("suite", directory);
    for (int number = 0; ::recv(pair_[1], &number, sizeof number, 0) == sizeof number;) {
      defaults->setObject(std::string(100'000, static_cast<char>('a' + number % 26)), "bulk");
      defaults->setObject(number, "key");
      if (::send(pair_[1], &number, sizeof number, MSG_NOSIGNAL) != sizeof number) break;
    }
    ::_exit(0);
  }

  std::array<int, 2> pair_{};
  pid_t child_ = -1;
};

TEST_F(UserDefaultsTest, EachChangeOfAnotherProcessIsTakenInByTheNextSynchronize) {
  const OtherProcess other(directory_.path());
  ASSERT_TRUE(other.store(0));
  const auto defaults = openSuite();
  for (int number = 1; number <= 100; ++number) {
    for (int again = number % 3; again > 0; --again) ASSERT_TRUE(defaults->synchronize());
    ASSERT_TRUE(other.store(number));
    ASSERT_TRUE(defaults->synchronize());
    ASSERT_EQ(defaults->objectForKey("key"), Value(number));
    if (number % 10 == 0) defaults->setObject(number, "own");
  }
}

TEST_F(UserDefaultsTest, SettingAValueReplacesWhatAnotherStoredSince) {
  const auto one = openSuite();
  const auto other = openSuite();
  one->setObject(Dictionary{{"a", 1}}, "key");
  other->setObject(5, "key");
  one->setObject(Dictionary{{"a", 1}}, "key");
  EXPECT_EQ(stored("key"), Value(Dictionary{{"a", 1}}));
  other->setObject(Dictionary{{"a", 1}, {"b", 2}}, "key");
  one->setObject(Dictionary{{"a", 3}}, "key");
  EXPECT_EQ(stored("key"), Value(Dictionary{{"a", 3}}));
}

TEST_F(UserDefaultsTest, AValueThatNestsDeeperThanArchivesMayIsNotTaken) {
  Value deep(1);
  for (int i = 0; i < 64; ++i) deep = Array{deep};
  const auto defaults = openSuite();
  defaults->setObject(deep, "key");
  EXPECT_EQ(stored("key"), deep);
  EXPECT_EQ(defaults->lastError(), "");
  defaults->setObject(Array{deep}, "key");
  EXPECT_EQ(defaults->lastError(), "the value for \"key\" nests deeper than 64");
  EXPECT_EQ(defaults->objectForKey("key"), deep);
  EXPECT_TRUE(defaults->synchronize());
}

TEST_F(UserDefaultsTest, OnlyItsOwnerCanReadTheFile) {
  const auto defaults = openSuite();
  defaults->setObject(1, "key");
  for (const char* suffix : {"", "-wal", "-shm"}) {
    struct stat status {};
    ASSERT_EQ(::stat(path(suffix).c_str(), &status), 0) << suffix;
    EXPECT_EQ(status.st_mode & 0777U, 0600U) << suffix;
  }
}

TEST_F(UserDefaultsTest, SuitesOfDifferentNamesAreApart) {
  openSuite()->setObject(1, "key");
  const auto other = UserDefaults::initWithSuiteName("com.example.other", directory_.path());
  ASSERT_NE(other, nullptr);
  EXPECT_TRUE(other->objectForKey("key").isNothing());
  EXPECT_TRUE(std::filesystem::exists(directory_ / "com.example.other.db"));
}

TEST_F(UserDefaultsTest, ANameThatWouldLeaveTheDirectoryIsRefused) {
  for (const std::string& name : {std::string(), std::string("."), std::string(".."), std::string("../suite"),
                                  std::string("a/b"), std::string("a\0b", 3)}) {
    std::string reason;
    EXPECT_EQ(UserDefaults::initWithSuiteName(name, directory_.path(), {}, &reason), nullptr);
    EXPECT_NE(reason, "");
  }
  EXPECT_TRUE(std::filesystem::is_empty(directory_.path()));
}

TEST_F(UserDefaultsTest, AMissingDirectoryGivesNothingAndTheReason) {
  std::string reason;
  EXPECT_EQ(UserDefaults::initWithSuiteName("suite", directory_ / "missing", {}, &reason), nullptr);
  EXPECT_EQ(reason, directory_ / "missing/suite.db" + ": unable to open database file");
  EXPECT_EQ(UserDefaults::initWithSuiteName("suite", directory_ / "missing"), nullptr);
}

TEST_F(UserDefaultsTest, ADirectoryThatCannotBeWrittenGivesNothingAndTheReason) {
  openSuite()->setObject(1, "key");
  for (const bool with_file : {true, false}) {
    if (!with_file) std::filesystem::remove(path());
    std::filesystem::permissions(directory_.path(), std::filesystem::perms(0555));
    if (with_file) std::filesystem::permissions(path(), std::filesystem::perms(0444));
    const uid_t self = ::geteuid();
    ASSERT_EQ(::seteuid(self == 0 ? 65534 : self), 0);  // root may write everywhere
    std::string reason;
    const auto defaults = UserDefaults::initWithSuiteName("suite", directory_.path(), {}, &reason);
    ASSERT_EQ(::seteuid(self), 0);
    std::filesystem::permissions(directory_.path(), std::filesystem::perms(0755));
    EXPECT_EQ(defaults, nullptr);
    EXPECT_NE(reason, "");
  }
}

TEST_F(UserDefaultsTest, ADirectoryInPlaceOfTheFileGivesNothingAndTheReason) {
  std::filesystem::create_directory(path());
  std::string reason;
  EXPECT_EQ(UserDefaults::initWithSuiteName("suite", directory_.path(), {}, &reason), nullptr);
  EXPECT_NE(reason, "");
  EXPECT_TRUE(std::filesystem::is_directory(path()));
}

TEST_F(UserDefaultsTest, AnUnknownVFSGivesNothingAndTheReason) {
  std::string reason;
  EXPECT_EQ(UserDefaults::initWithSuiteName("suite", directory_.path(), {.recreatable = {}, .vfs = "none"},
                                            &reason),
            nullptr);
  EXPECT_NE(reason, "");
}

}  // namespace
}  // namespace kelvane
