#include "platform/wire/socket_io.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "platform/wire/protocol.h"

namespace kelvane::wire {

namespace {

constexpr std::size_t largest_control = CMSG_SPACE(most_passed_descriptors * sizeof(int));
constexpr std::size_t most_parts = 8;

struct alignas(cmsghdr) Control {
  std::array<std::byte, largest_control> bytes;
};

/// Returns how many there were. Whatever came is owned from here on.
std::size_t adoptDescriptors(msghdr& message, std::vector<FileDescriptor>& descriptors) {
  std::size_t count = 0;
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    const std::size_t here = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < here; ++i) {
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(part) + i * sizeof(int), sizeof(int));
      descriptors.emplace_back(descriptor);
    }
    count += here;
  }
  return count;
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
  const ssize_t count = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
  if (count < 0) return {.error = errno == EWOULDBLOCK || errno == EINTR ? EAGAIN : errno};
  const std::size_t passed = most_descriptors > 0 ? adoptDescriptors(message, descriptors) : 0;
  return {.bytes = static_cast<std::size_t>(count),
          .dropped = (message.msg_flags & MSG_CTRUNC) != 0,
          .passed = passed};
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
  const ssize_t count = ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (count < 0) return {.error = errno == EWOULDBLOCK || errno == EINTR ? EAGAIN : errno};
  return {.bytes = static_cast<std::size_t>(count)};
}

}  // namespace kelvane::wire
