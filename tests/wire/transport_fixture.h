#pragma once

// A transport at one end of a socket pair, and a peer of bare system calls at the other.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/wire/transport.h"

namespace kelvane::wire {

inline std::pair<FileDescriptor, FileDescriptor> socketPair() {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) != 0) std::abort();
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

inline std::size_t openDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries))) - 1;  // its own
}

inline FileDescriptor openNull() { return FileDescriptor(::open("/dev/null", O_RDWR | O_CLOEXEC)); }

/// This many descriptors of /dev/null; system calls take the vector of numbers.
struct Descriptors {
  explicit Descriptors(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) owned.push_back(openNull());
    for (const auto& descriptor : owned) numbers.push_back(descriptor.get());
  }
  std::vector<FileDescriptor> owned;
  std::vector<int> numbers;
};

/// A call of `member` with one string, and descriptors that it names.
inline Outgoing makeCall(std::string_view member, std::string_view text = "",
                         std::span<const int> named = {}) {
  Outgoing message;
  const std::string signature = "s" + std::string(named.size(), 'h');
  Header header;
  header.path = "/a";
  header.interface = "a.b";
  header.member = member;
  header.signature = signature;
  Writer writer(message, header);
  writer.writeString(text);
  for (const int descriptor : named) writer.writeDescriptor(descriptor);
  EXPECT_EQ(writer.finish(), Writer::Fault::none);
  return message;
}

inline std::string bytesOf(const Outgoing& message) {
  return {reinterpret_cast<const char*>(message.bytes.data()), message.bytes.size()};
}

/// The bytes of such a call.
inline std::string callBytes(std::string_view member, std::string_view text = "",
                             std::span<const int> named = {}, std::uint32_t serial = 1) {
  Outgoing message = makeCall(member, text, named);
  setSerial(message, serial);
  return bytesOf(message);
}

/// The first 16 bytes of a call that claims to be `size` bytes long.
inline std::string startOfCall(std::size_t size) {
  std::string start = callBytes("Half", std::string(100, 'x')).substr(0, fixed_header_size);
  std::uint32_t fields = 0;
  std::memcpy(&fields, start.data() + 12, sizeof fields);
  const auto body = static_cast<std::uint32_t>(size - fixed_header_size - (fields + 7) / 8 * 8);
  std::memcpy(start.data() + 4, &body, sizeof body);
  return start;
}

inline void passTo(int socket, std::string_view bytes, std::span<const int> descriptors = {}) {
  const std::array<std::span<const std::byte>, 1> parts{std::as_bytes(std::span(bytes))};
  const WriteResult result = writeSocket(socket, parts, descriptors);
  ASSERT_EQ(result.error, 0) << std::strerror(result.error);
  ASSERT_EQ(result.bytes, bytes.size());
}

/// Everything that is there.
inline std::string readFrom(int socket) {
  std::string all;
  std::array<char, 4096> buffer{};
  for (;;) {
    const ssize_t count = ::recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count <= 0) return all;
    all.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

/// What a client says at the beginning.
inline std::string opening(bool descriptors = true) {
  return ClientHandshake(::geteuid(), descriptors).opening();
}

constexpr Limits small_limits{10, 1U << 20, 1U << 20, 32, 10, 10};

class TransportTest : public testing::Test {
 protected:
  using Outcome = Transport::Outcome;

  TransportTest() { std::tie(ours_, peer_) = socketPair(); }
  ~TransportTest() override {
    transport_.reset();
    taken_.clear();
    charges_.clear();
    for (const Resource resource :
         {Resource::received_bytes, Resource::queued_bytes, Resource::descriptors}) {
      EXPECT_EQ(account_->used(resource), 0U) << nameOf(resource);
    }
  }

  void makeTransport(Transport::Side side, TransportOptions options = {.takes_descriptors = true}) {
    transport_ = std::make_unique<Transport>(std::move(ours_), side, ::geteuid(), account_, options);
  }
  /// A server whose handshake is done.
  void makeServer(TransportOptions options = {.takes_descriptors = true}) {
    makeTransport(Transport::Side::server, options);
    passTo(peer_.get(), opening());
    ASSERT_EQ(receive(), Outcome::drained);
    ASSERT_TRUE(transport_->isEstablished());
    readFrom(peer_.get());
  }

  /// Reads once and notes the members of the messages.
  Outcome receive() {
    return transport_->receive([this](Transport::Received& received) {
      members_.emplace_back(received.message.header.member);
      sizes_.push_back(received.message.body.size());
      named_.push_back(received.descriptors.size());
      if (keeps_) {
        for (auto& descriptor : received.descriptors) taken_.push_back(std::move(descriptor));
        charges_.push_back(std::move(received.bytes));
        charges_.push_back(std::move(received.descriptor_charge));
      }
      return goes_on_;
    });
  }
  /// Until there is nothing more, or the transport ends.
  Outcome receiveAll() {
    Outcome outcome = receive();
    while (outcome == Outcome::more) outcome = receive();
    return outcome;
  }

  const std::shared_ptr<Account> account_ = std::make_shared<Account>(::geteuid(), small_limits);
  FileDescriptor ours_;
  FileDescriptor peer_;
  std::unique_ptr<Transport> transport_;

  bool goes_on_ = true;  // what the handler says
  bool keeps_ = false;   // what the handler does with descriptors and charges
  std::vector<std::string> members_;
  std::vector<std::size_t> sizes_;
  std::vector<std::size_t> named_;
  std::vector<FileDescriptor> taken_;
  std::vector<Charge> charges_;
};

}  // namespace kelvane::wire
