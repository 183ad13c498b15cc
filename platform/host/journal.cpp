#include "platform/host/journal.h"

#include <endian.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "platform/foundation/file_descriptor.h"

namespace kelvane {
namespace {

constexpr std::size_t longest_name = 64;

bool isName(std::string_view name) {
  constexpr std::string_view allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
  // A leading underscore is reserved for the journal itself.
  return !name.empty() && name.size() <= longest_name && name.front() >= 'A' && name.front() <= 'Z' &&
         name.find_first_not_of(allowed) == std::string_view::npos;
}

bool addressOf(const std::string& path, sockaddr_un& address) {
  if (path.empty() || path.size() >= sizeof address.sun_path) return false;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return true;
}

}  // namespace

void JournalEntry::add(std::string_view name, std::string_view value) {
  if (!isName(name) || fields_ == most_fields) return;
  ++fields_;
  value = value.substr(0, longest_value);
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

bool JournalEntry::send(const std::string& journal_socket) const {
  sockaddr_un address{};
  if (!addressOf(journal_socket, address)) {
    errno = EINVAL;
    return false;
  }
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return false;
  const ssize_t sent = ::sendto(socket.get(), text_.data(), text_.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return sent == static_cast<ssize_t>(text_.size());
}

}  // namespace kelvane
