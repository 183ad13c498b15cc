#include "platform/host/journal.h"

#include <endian.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "platform/foundation/file_descriptor.h"
#include "platform/host/local_address.h"

namespace kelvane {
namespace {

constexpr std::size_t longest_name = 64;
constexpr std::size_t length_size = sizeof(std::uint64_t);
constexpr std::size_t separators = 2;  // line breaks, or "=" and a line break
/// For a line of the log: much longer than a working journal takes, too short to delay the caller noticeably.
constexpr auto line_patience = std::chrono::milliseconds(100);

bool isName(std::string_view name) {
  constexpr std::string_view allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
  // A leading underscore is reserved for the journal itself.
  return !name.empty() && name.size() <= longest_name && name.front() >= 'A' && name.front() <= 'Z' &&
         name.find_first_not_of(allowed) == std::string_view::npos;
}

/// The value's first bytes, without the beginning of a character that does not fit.
std::string_view cut(std::string_view value, std::size_t most) {
  if (value.size() <= most) return value;
  constexpr std::size_t longest_character = 4;
  const auto continues = [&](std::size_t at) {
    return (static_cast<unsigned char>(value[at]) & 0xc0) == 0x80;
  };
  std::size_t end = most;
  while (end > 0 && most - end < longest_character && continues(end)) --end;
  return value.substr(0, continues(end) ? most : end);
}

bool isSocket(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

void setPatience(int socket, std::chrono::milliseconds patience) {
  timeval time{};
  time.tv_sec = patience.count() / 1000;
  time.tv_usec = patience.count() % 1000 * 1000;
  ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

}  // namespace

void JournalEntry::add(std::string_view name, std::string_view value) {
  const std::size_t frame = name.size() + separators + length_size;
  if (!isName(name) || fields_ == most_fields || text_.size() + frame >= longest_entry) return;
  ++fields_;
  value = cut(value, std::min(longest_value, longest_entry - text_.size() - frame));
  text_ += name;
  if (value.find('\n') == std::string_view::npos) {
    text_ += '=';
  } else {
    const std::uint64_t length = htole64(value.size());
    text_ += '\n';
    text_.append(reinterpret_cast<const char*>(&length), sizeof length);
  }
  text_ += value;
  text_ += '\n';
}

bool JournalEntry::send(const std::string& journal_socket, std::chrono::milliseconds patience) const {
  const std::optional<LocalAddress> address = LocalAddress::ofPath(journal_socket);
  if (!address) {
    errno = EINVAL;
    return false;
  }
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) return false;
  const int waiting = patience.count() == 0 ? MSG_DONTWAIT : 0;
  if (waiting == 0) setPatience(socket.get(), patience);
  ssize_t sent = -1;
  do {
    sent = ::sendto(socket.get(), text_.data(), text_.size(), MSG_NOSIGNAL | waiting, address->get(),
                    address->size());
  } while (sent < 0 && errno == EINTR);
  return sent == static_cast<ssize_t>(text_.size());
}

bool isJournalStream(int descriptor, const char* journal_stream, const std::string& journal_socket) {
  struct stat status {};
  if (journal_stream == nullptr || ::fstat(descriptor, &status) != 0) return false;
  return journal_stream == fmt::format("{}:{}", status.st_dev, status.st_ino) && isSocket(journal_socket);
}

bool sendToJournal(JournalPriority priority, int level, const std::string& identifier,
                   std::string_view message, const std::string& journal_socket) {
  JournalEntry entry;
  entry.add("MESSAGE", message);
  entry.add("PRIORITY", std::to_string(static_cast<int>(priority)));
  entry.add("SYSLOG_IDENTIFIER", identifier);
  entry.add("KELVANE_LEVEL", std::to_string(level));
  return entry.send(journal_socket, line_patience);
}

}  // namespace kelvane
