#include "platform/host/journal.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include "platform/foundation/file_descriptor.h"
#include "tests/foundation/temporary_directory.h"

namespace kelvane::tests {
namespace {

/// The datagram that the journal would receive.
class StandInJournal {
 public:
  StandInJournal() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string at = path();
    std::copy(at.begin(), at.end(), std::begin(address.sun_path));
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  [[nodiscard]] std::string path() const { return directory_ / "socket"; }
  [[nodiscard]] std::string received() const {
    std::string text(1 << 20, '\0');
    const ssize_t length = ::recv(socket_.get(), text.data(), text.size(), MSG_DONTWAIT);
    text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return text;
  }

 private:
  const test::TemporaryDirectory directory_;
  const FileDescriptor socket_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

TEST(JournalEntry, IsOneDatagramWithALineForEachField) {
  const StandInJournal journal;
  JournalEntry entry;
  entry.add("MESSAGE", "npm: freed 3 files");
  entry.add("KELVANE_HOLDER", "npm");
  ASSERT_TRUE(entry.send(journal.path()));
  EXPECT_EQ(journal.received(), "MESSAGE=npm: freed 3 files\nKELVANE_HOLDER=npm\n");
  EXPECT_EQ(journal.received(), "");
}

TEST(JournalEntry, AValueWithANewLineCannotBecomeAField) {
  JournalEntry entry;
  entry.add("KELVANE_ROOT", "/home/eve/a\nMESSAGE=forged");
  const std::string length("\x1a\0\0\0\0\0\0\0", 8);
  EXPECT_EQ(entry.text(), "KELVANE_ROOT\n" + length + "/home/eve/a\nMESSAGE=forged\n");
}

TEST(JournalEntry, ALongValueIsCutAndManyFieldsAreNotTaken) {
  JournalEntry entry;
  for (std::size_t i = 0; i < 2 * JournalEntry::most_fields; ++i) entry.add("KELVANE_FIELD", "x");
  EXPECT_EQ(entry.text().size(), JournalEntry::most_fields * std::string("KELVANE_FIELD=x\n").size());
  JournalEntry lengthy;
  lengthy.add("MESSAGE", std::string(1 << 20, 'x'));
  EXPECT_EQ(lengthy.text(), "MESSAGE=" + std::string(JournalEntry::longest_value, 'x') + "\n");
}

TEST(JournalEntry, TheLongestEntryFitsIntoADatagram) {
  const StandInJournal journal;
  for (const std::string& value : {std::string(1 << 20, 'x'), std::string(1 << 20, '\n')}) {
    JournalEntry entry;
    for (std::size_t i = 0; i < JournalEntry::most_fields; ++i) entry.add("KELVANE_FIELD", value);
    EXPECT_LE(entry.text().size(), JournalEntry::longest_entry);
    EXPECT_GT(entry.text().size(), JournalEntry::longest_entry - 64);
    EXPECT_EQ(entry.text().back(), '\n');
    EXPECT_TRUE(entry.send(journal.path())) << errno;
    EXPECT_EQ(journal.received(), entry.text());
  }
}

TEST(JournalEntry, AValueIsNotCutWithinACharacter) {
  for (const std::string character : {"\u00e9", "\u20ac", "\U0001f600"}) {
    for (std::size_t before = 0; before < character.size(); ++before) {
      std::string value(before, 'x');
      while (value.size() <= JournalEntry::longest_value) value += character;
      JournalEntry entry;
      entry.add("MESSAGE", value);
      const std::size_t kept = entry.text().size() - std::string("MESSAGE=\n").size();
      EXPECT_EQ((kept - before) % character.size(), 0U) << character << before;
      EXPECT_GT(kept, JournalEntry::longest_value - character.size()) << character << before;
    }
  }
  JournalEntry no_text;
  no_text.add("MESSAGE", std::string(1 << 20, '\x80'));
  EXPECT_EQ(no_text.text().size(), std::string("MESSAGE=\n").size() + JournalEntry::longest_value);
}

TEST(JournalEntry, ANameThatTheJournalWouldRefuseIsLeftOut) {
  JournalEntry entry;
  for (const char* const name : {"", "_PID", "lower", "A B", "A=B", "A\n", "1A"}) entry.add(name, "x");
  EXPECT_EQ(entry.text(), "");
}

TEST(JournalEntry, WithoutAJournalItIsNotTaken) {
  const test::TemporaryDirectory directory;
  JournalEntry entry;
  entry.add("MESSAGE", "x");
  EXPECT_FALSE(entry.send(directory / "missing"));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(entry.send(std::string(200, 'x')));
}

TEST(JournalEntry, AJournalThatReadsNothingIsNotWaitedFor) {
  const StandInJournal journal;
  JournalEntry entry;
  entry.add("MESSAGE", std::string(8000, 'x'));
  bool taken = true;
  for (int i = 0; taken && i < 100'000; ++i) taken = entry.send(journal.path());
  EXPECT_FALSE(taken);
}

TEST(LogLine, IsAnEntryWithPriorityIdentifierAndLevel) {
  const StandInJournal journal;
  ASSERT_TRUE(sendToJournal(JournalPriority::debug, 5, "Kelvane", "main begins\nPRIORITY=0", journal.path()));
  const std::string length("\x16\0\0\0\0\0\0\0", 8);
  EXPECT_EQ(journal.received(), "MESSAGE\n" + length +
                                    "main begins\nPRIORITY=0\n"
                                    "PRIORITY=7\nSYSLOG_IDENTIFIER=Kelvane\nKELVANE_LEVEL=5\n");
}

TEST(LogLine, OfSixtyFourKibibytesIsCutAndKeepsItsOtherFields) {
  const StandInJournal journal;
  const std::string message(std::size_t{64} << 10, 'x');
  ASSERT_TRUE(sendToJournal(JournalPriority::warning, 3, "Kelvane", message, journal.path()));
  EXPECT_EQ(journal.received(), "MESSAGE=" + message.substr(0, JournalEntry::longest_value) +
                                    "\nPRIORITY=4\nSYSLOG_IDENTIFIER=Kelvane\nKELVANE_LEVEL=3\n");
}

TEST(LogLine, AJournalThatReadsNothingIsGivenUp) {
  const StandInJournal journal;
  JournalEntry entry;
  entry.add("MESSAGE", "x");
  while (entry.send(journal.path())) continue;
  EXPECT_FALSE(sendToJournal(JournalPriority::warning, 3, "Kelvane", "x", journal.path()));
  EXPECT_EQ(errno, EAGAIN);
}

TEST(LogLine, WaitsForAJournalThatIsBusy) {
  const StandInJournal journal;
  JournalEntry entry;
  entry.add("MESSAGE", "x");
  while (entry.send(journal.path())) continue;
  std::atomic<bool> over = false;
  std::thread reader([&] {
    while (!over) static_cast<void>(journal.received());
  });
  // One may be given up on a machine that is busy itself.
  bool taken = false;
  for (int i = 0; !taken && i < 100; ++i)
    taken = sendToJournal(JournalPriority::warning, 3, "Kelvane", "y", journal.path());
  EXPECT_TRUE(taken);
  over = true;
  reader.join();
}

class JournalStream : public testing::Test {
 protected:
  JournalStream() {
    struct stat status {};
    EXPECT_EQ(::fstat(stream_.get(), &status), 0);
    name_ = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
  }
  const test::TemporaryDirectory directory_;
  const StandInJournal journal_;
  const FileDescriptor stream_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  const FileDescriptor other_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::string name_;
};

TEST_F(JournalStream, IsTheDescriptorThatTheEnvironmentNames) {
  EXPECT_TRUE(isJournalStream(stream_.get(), name_.c_str(), journal_.path()));
}

TEST_F(JournalStream, AnotherDescriptorIsNone) {
  EXPECT_FALSE(isJournalStream(other_.get(), name_.c_str(), journal_.path()));
  EXPECT_FALSE(isJournalStream(-1, name_.c_str(), journal_.path()));
}

TEST_F(JournalStream, WithoutTheVariableThereIsNone) {
  EXPECT_FALSE(isJournalStream(stream_.get(), nullptr, journal_.path()));
  EXPECT_FALSE(isJournalStream(stream_.get(), "", journal_.path()));
}

TEST_F(JournalStream, WithoutTheJournalsSocketThereIsNone) {
  EXPECT_FALSE(isJournalStream(stream_.get(), name_.c_str(), directory_ / "missing"));
  directory_.write("file", "");
  EXPECT_FALSE(isJournalStream(stream_.get(), name_.c_str(), directory_ / "file"));
}

}  // namespace
}  // namespace kelvane::tests
