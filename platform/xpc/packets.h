#pragma once

#include <sys/socket.h>
#include <array>
#include <cstddef>
#include <cstring>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::xpc {

/// Messages of one byte each, with at most one descriptor each: if a sender attaches
/// more, the kernel closes the others.
class Packets {
 public:
  static constexpr std::size_t most = 8;

  /// The number received; negative, with errno set, when there is none.
  int receive(int socket) {
    for (std::size_t i = 0; i < most; ++i) {
      data_[i] = {&bytes_[i], 1};
      headers_[i] = {};
      headers_[i].msg_hdr.msg_iov = &data_[i];
      headers_[i].msg_hdr.msg_iovlen = 1;
      headers_[i].msg_hdr.msg_control = control_[i].data();
      headers_[i].msg_hdr.msg_controllen = CMSG_LEN(sizeof(int));
    }
    return ::recvmmsg(socket, headers_.data(), most, MSG_DONTWAIT | MSG_CMSG_CLOEXEC, nullptr);
  }
  /// An empty message may mean end-of-file.
  [[nodiscard]] bool isEmpty(std::size_t i) const { return headers_[i].msg_len == 0; }
  /// Empty if the message has none.
  FileDescriptor takeDescriptor(std::size_t i) {
    const cmsghdr* const header = isEmpty(i) ? nullptr : CMSG_FIRSTHDR(&headers_[i].msg_hdr);
    if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) return {};
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
    return FileDescriptor(descriptor);
  }

 private:
  struct alignas(cmsghdr) Control : std::array<char, CMSG_SPACE(sizeof(int))> {};

  std::array<char, most> bytes_{};
  std::array<iovec, most> data_{};
  std::array<mmsghdr, most> headers_{};
  std::array<Control, most> control_{};
};

}  // namespace kelvane::xpc
