#include "platform/host/journal.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <algorithm>
#include <cerrno>
#include <string>

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
  for (std::size_t i = 0; i < 2 * JournalEntry::most_fields; ++i)
    entry.add("KELVANE_FIELD", std::string(1 << 20, 'x'));
  const std::size_t field = std::string("KELVANE_FIELD=\n").size() + JournalEntry::longest_value;
  EXPECT_EQ(entry.text().size(), JournalEntry::most_fields * field);
  const StandInJournal journal;
  EXPECT_TRUE(entry.send(journal.path())) << "the greatest entry fits into a datagram";
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

}  // namespace
}  // namespace kelvane::tests
