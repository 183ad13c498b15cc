#pragma once

// The journal's native protocol (systemd.io/JOURNAL_NATIVE_PROTOCOL): an entry is one datagram, a field a
// line "NAME=value", or, where the value has a line break, the name, a line break, the value's length as 64
// bits in little-endian order, and the value. Any thread.
//
// The protocol also takes an entry as a sealed memory file, for values that exceed a datagram. That is not
// used: much of what is logged comes from peers, and the journal must not grow by as much as a peer chooses
// to send.

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace kelvane {

inline constexpr const char* journal_socket_path = "/run/systemd/journal/socket";

/// One entry. Names are upper-case letters, digits and "_"; values may be any bytes.
class JournalEntry {
 public:
  /// Longer values are cut, at a character's end where they are UTF-8. A line of the log, at most 32 KiB,
  /// fits.
  static constexpr std::size_t longest_value = std::size_t{48} << 10;
  /// Fields that no longer fit are cut or left out. The kernel's default limit for a datagram is 208 KiB.
  static constexpr std::size_t longest_entry = std::size_t{128} << 10;
  static constexpr std::size_t most_fields = 16;

  /// Fields with a malformed name, and fields beyond `most_fields`, are left out.
  void add(std::string_view name, std::string_view value);
  /// The entry in the form of the protocol.
  [[nodiscard]] const std::string& text() const { return text_; }
  /// False, with errno, if the journal did not accept it. Waits at most `patience` for a busy journal.
  bool send(const std::string& journal_socket = journal_socket_path,
            std::chrono::milliseconds patience = std::chrono::milliseconds(0)) const;

 private:
  std::string text_;
  std::size_t fields_ = 0;
};

/// Whether the descriptor is the stream that the journal reads according to `journal_stream` ("device:inode",
/// as in $JOURNAL_STREAM; may be null), and the journal's own socket accepts entries.
[[nodiscard]] bool isJournalStream(int descriptor, const char* journal_stream,
                                   const std::string& journal_socket = journal_socket_path);

/// The syslog priorities used here.
enum class JournalPriority { warning = 4, debug = 7 };

/// One line of the log as an entry. `level` is this project's own level, stored in the field KELVANE_LEVEL.
/// False, with errno, if the journal did not accept it. Waits at most a tenth of a second for a busy journal.
bool sendToJournal(JournalPriority priority, int level, const std::string& identifier,
                   std::string_view message, const std::string& journal_socket = journal_socket_path);

}  // namespace kelvane
