#include "tests/attack/hostile_service.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <cstring>
#include <utility>

namespace kelvane::tests {
namespace {

FileDescriptor receiveDescriptor(int socket) {
  char byte = 0;
  iovec data{&byte, 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  if (::recvmsg(socket, &message, MSG_CMSG_CLOEXEC) != 1 || CMSG_FIRSTHDR(&message) == nullptr) return {};
  int descriptor = -1;
  std::memcpy(&descriptor, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof descriptor);
  return FileDescriptor(descriptor);
}

/// Answers each line of the handshake. A client may send all of them at once.
bool serveHandshake(RawPeer& peer) {
  for (;;) {
    const std::string line = peer.readLine();
    if (line.empty()) return false;
    if (line == "BEGIN\r\n") return true;
    if (line.find("AUTH EXTERNAL\r\n") != std::string::npos) {
      peer.send("DATA\r\n");
    } else if (line == "NEGOTIATE_UNIX_FD\r\n") {
      peer.send("AGREE_UNIX_FD\r\n");
    } else {
      peer.send("OK 00112233445566778899aabbccddeeff\r\n");
    }
  }
}

}  // namespace

RawService::RawService() {
  std::array<int, 2> pair{};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()), 0);
  kept_ = FileDescriptor(pair[0]);
  given_ = FileDescriptor(pair[1]);
}

std::optional<RawPeer> RawService::nextConnection() {
  FileDescriptor socket = receiveDescriptor(kept_.get());
  if (!socket) return std::nullopt;
  RawPeer peer(std::move(socket));
  if (!serveHandshake(peer)) return std::nullopt;
  return peer;
}

std::optional<RawPeer> RawService::nextAnsweredConnection() {
  auto peer = nextConnection();
  if (!peer || !peer->receive()) return std::nullopt;
  peer->send(emptyReply(1, 1).bytes());
  return peer;
}

void RawService::close() { ::shutdown(kept_.get(), SHUT_RDWR); }

}  // namespace kelvane::tests
