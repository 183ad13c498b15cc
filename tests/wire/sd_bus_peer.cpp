#include "tests/wire/sd_bus_peer.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>

namespace kelvane::wire {
namespace {

int checked(int result) {
  if (result < 0) throw std::system_error(-result, std::generic_category());
  return result;
}

/// So that one end can be read to what is there, and the other is driven by sd_bus_process alone.
std::array<FileDescriptor, 2> socketPair() {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) < 0) checked(-errno);
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

}  // namespace

SdBusPeer::SdBusPeer() {
  auto ends = socketPair();
  socket_ = std::move(ends[0]);
  sd_bus* bus = nullptr;
  checked(sd_bus_new(&bus));
  bus_.reset(bus);
  const int end = ends[1].release();
  checked(sd_bus_set_fd(bus, end, end));
  checked(sd_bus_negotiate_fds(bus, 1));
  checked(sd_bus_start(bus));
  constexpr std::string_view answer = "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n";
  write(std::as_bytes(std::span(answer)), {});
  while (sd_bus_is_ready(bus) == 0) checked(sd_bus_process(bus, nullptr));
  static_cast<void>(readAll());
}

BusMessage SdBusPeer::newCall() {
  sd_bus_message* message = nullptr;
  checked(sd_bus_message_new_method_call(bus_.get(), &message, nullptr, "/a", "i.j", "M"));
  return BusMessage(message);
}

std::vector<std::byte> SdBusPeer::sent(sd_bus_message* message) {
  checked(sd_bus_send(bus_.get(), message, nullptr));
  return readAll();
}

BusMessage SdBusPeer::received(const Outgoing& message) {
  write(message.bytes, message.descriptors);
  for (;;) {
    sd_bus_message* found = nullptr;
    if (checked(sd_bus_process(bus_.get(), &found)) == 0) return {};
    if (found != nullptr) return BusMessage(found);
  }
}

std::vector<std::byte> SdBusPeer::readAll() const {
  std::vector<std::byte> all;
  std::array<std::byte, 4096> part{};
  for (ssize_t size = 0; (size = ::recv(socket_.get(), part.data(), part.size(), 0)) > 0;)
    all.insert(all.end(), part.begin(), part.begin() + size);
  return all;
}

void SdBusPeer::write(Bytes bytes, const std::vector<int>& descriptors) const {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(16 * sizeof(int))> control{};
  iovec part{const_cast<std::byte*>(bytes.data()), bytes.size()};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  if (!descriptors.empty()) {
    header.msg_control = control.data();
    header.msg_controllen = CMSG_SPACE(descriptors.size() * sizeof(int));
    cmsghdr* const passed = CMSG_FIRSTHDR(&header);
    passed->cmsg_level = SOL_SOCKET;
    passed->cmsg_type = SCM_RIGHTS;
    passed->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
    std::memcpy(CMSG_DATA(passed), descriptors.data(), descriptors.size() * sizeof(int));
  }
  if (::sendmsg(socket_.get(), &header, 0) != static_cast<ssize_t>(bytes.size())) checked(-errno);
}

}  // namespace kelvane::wire
