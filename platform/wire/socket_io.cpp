#include "platform/wire/socket_io.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/wire/protocol.h"

namespace kelvane::wire {

namespace {

constexpr std::size_t largest_control = CMSG_SPACE(most_passed_descriptors * sizeof(int));
constexpr std::size_t most_parts = 8;

struct alignas(cmsghdr) Control {
  std::array<std::byte, largest_control> bytes;
};

// Of Linux 6.5, and not yet in the C library's headers: a descriptor of the process that sent.
constexpr int passed_process = 0x04;  // SCM_PIDFD

/// Whatever came is owned from here on.
void adoptDescriptors(msghdr& message, ReadResult& result, std::vector<FileDescriptor>& descriptors) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
    const bool rights = part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_RIGHTS;
    const bool process = part->cmsg_level == SOL_SOCKET && part->cmsg_type == passed_process;
    if (!rights) result.unasked = true;
    if (!rights && !process) continue;
    const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int number = -1;
      std::memcpy(&number, CMSG_DATA(part) + i * sizeof(int), sizeof(int));
      FileDescriptor descriptor(number);
      if (rights) descriptors.push_back(std::move(descriptor));
    }
    if (rights) result.passed += count;
  }
}

void putDescriptors(msghdr& message, Control& control, std::span<const int> descriptors) {
  message.msg_control = control.bytes.data();
  message.msg_controllen = CMSG_SPACE(descriptors.size_bytes());
  cmsghdr* const part = CMSG_FIRSTHDR(&message);
  part->cmsg_level = SOL_SOCKET;
  part->cmsg_type = SCM_RIGHTS;
  part->cmsg_len = CMSG_LEN(descriptors.size_bytes());
  std::memcpy(CMSG_DATA(part), descriptors.data(), descriptors.size_bytes());
}

}  // namespace

ReadResult readSocket(int socket, std::span<std::byte> room, std::size_t most_descriptors,
                      std::vector<FileDescriptor>& descriptors) {
  Control control;
  iovec part{room.data(), room.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  if (most_descriptors > 0) {
    message.msg_control = control.bytes.data();
    message.msg_controllen = CMSG_LEN(std::min(most_descriptors, most_passed_descriptors) * sizeof(int));
  }
  ssize_t count = -1;
  do {
    count = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
  } while (count < 0 && errno == EINTR);
  if (count < 0) return {.error = errno};
  ReadResult result{.bytes = static_cast<std::size_t>(count),
                    .dropped = (message.msg_flags & MSG_CTRUNC) != 0};
  adoptDescriptors(message, result, descriptors);
  return result;
}

WriteResult writeSocket(int socket, std::span<const std::span<const std::byte>> parts,
                        std::span<const int> descriptors) {
  Control control;
  std::array<iovec, most_parts> vector{};
  msghdr message{};
  message.msg_iov = vector.data();
  for (const auto& part : parts.first(std::min(parts.size(), most_parts))) {
    vector.at(message.msg_iovlen++) = {const_cast<std::byte*>(part.data()), part.size()};
  }
  if (!descriptors.empty()) putDescriptors(message, control, descriptors);
  ssize_t count = -1;
  do {
    count = ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (count < 0 && errno == EINTR);
  if (count < 0) return {.error = errno};
  return {.bytes = static_cast<std::size_t>(count)};
}

}  // namespace kelvane::wire
