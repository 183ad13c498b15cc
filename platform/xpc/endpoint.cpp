#include "platform/xpc/endpoint.h"

#include <sys/socket.h>
#include <array>
#include <cstring>
#include <utility>

namespace kelvane::xpc {
namespace {

int option(int descriptor, int name) {
  int value = -1;
  socklen_t length = sizeof value;
  return ::getsockopt(descriptor, SOL_SOCKET, name, &value, &length) == 0 ? value : -1;
}

bool isConnected(int descriptor) {
  sockaddr_storage peer{};
  socklen_t length = sizeof peer;
  return ::getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) == 0;
}

bool sendDescriptor(int through, int sent) {
  char byte = 0;
  iovec data{&byte, 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &sent, sizeof sent);
  return ::sendmsg(through, &message, MSG_DONTWAIT | MSG_NOSIGNAL) == 1;
}

}  // namespace

std::optional<Endpoint> Endpoint::adopt(FileDescriptor descriptor, std::shared_ptr<wire::Account> payer) {
  const int number = descriptor.get();
  if (option(number, SO_DOMAIN) != AF_UNIX || option(number, SO_TYPE) != SOCK_SEQPACKET ||
      !isConnected(number)) {
    return std::nullopt;
  }
  Endpoint endpoint;
  endpoint.handle_ = std::make_shared<const Handle>(Handle{std::move(descriptor), std::move(payer)});
  return endpoint;
}

Endpoint::Opening Endpoint::begin() const {
  std::array<int, 2> pair{-1, -1};
  if (!handle_ || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()) != 0) {
    return {};
  }
  return {FileDescriptor(pair[0]), FileDescriptor(pair[1])};
}

bool Endpoint::pass(const FileDescriptor& theirs) const {
  return theirs && sendDescriptor(descriptor(), theirs.get());
}

FileDescriptor Endpoint::open() const {
  Opening opening = begin();
  if (!pass(opening.theirs)) opening.ours.reset();
  return std::move(opening.ours);
}

}  // namespace kelvane::xpc
