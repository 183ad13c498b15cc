#pragma once

// A peer that speaks by bytes, to say what no library would: the other half of a connection under test.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/file_descriptor.h"
#include "platform/xpc/endpoint.h"

namespace kelvane::tests {

/// The bytes of one D-Bus message, little-endian.
struct RawMessage {
  std::uint8_t endianness = 'l';
  std::uint8_t type = 1;  // a method call
  std::uint8_t flags = 0;
  std::uint32_t serial = 1;
  std::string path = "/test/echo";
  std::string interface = "test.Echo";
  std::string member = "echo";
  std::string signature;
  std::string body;
  std::uint32_t descriptors = 0;
  std::uint32_t reply_serial = 0;
  std::string error_name;

  [[nodiscard]] std::string bytes() const;
};

/// Puts values one behind the other as D-Bus aligns them, from an offset that is a multiple of eight.
class RawWriter {
 public:
  RawWriter& number(std::uint64_t value, std::size_t size = 4);
  RawWriter& real(double value);
  RawWriter& text(const std::string& value);
  RawWriter& signature(const std::string& value);
  RawWriter& align(std::size_t to);
  RawWriter& raw(std::string_view bytes);
  void set(std::size_t at, std::uint32_t value);
  [[nodiscard]] std::size_t size() const { return bytes_.size(); }
  [[nodiscard]] std::string take() { return std::move(bytes_); }

 private:
  std::string bytes_;
};

/// A call of "echo" whose dictionary holds "value", a variant of that signature.
RawMessage echoCallOf(std::uint32_t serial, const std::string& signature,
                      const std::function<void(RawWriter&)>& write);
/// A call of "echo" whose dictionary holds one string of that many bytes.
RawMessage echoCall(std::uint32_t serial, std::size_t text_bytes);
/// The sixteen bytes that begin a message with a body of that size.
std::string headerClaiming(std::uint32_t body_bytes);

/// What came in.
struct RawReply {
  std::uint8_t type = 0;  // 2 a return, 3 an error
  std::uint32_t reply_serial = 0;
  std::string bytes;  // of the whole message
};

class RawPeer {
 public:
  /// Connects to a listener's path, or takes a socket that is connected.
  explicit RawPeer(const std::string& path);
  explicit RawPeer(FileDescriptor socket) : socket_(std::move(socket)) {}
  static RawPeer through(const xpc::Endpoint& endpoint) { return RawPeer(endpoint.open()); }

  /// Writes everything, blocking; false when the other end is closed.
  bool send(std::string_view bytes, const std::vector<int>& descriptors = {}) const;
  /// Writes until the socket takes no more; how many bytes went.
  [[nodiscard]] std::size_t sendWhatFits(std::string_view bytes) const;
  /// What a handshake begins with, from this process's user.
  static std::string firstLine();
  /// Authenticates. With `begin` false all but the last line.
  void handshake(bool begin = true);
  std::string readLine();
  /// The whole of a message; nothing when the connection has ended.
  std::optional<RawReply> receive();
  /// Blocks until the other end has closed, throwing away what comes before.
  void awaitEnd();
  /// Whether the other end has closed.
  [[nodiscard]] bool hasEnded() const;
  /// Blocks until more can be written.
  void awaitRoom() const;
  /// Blocks until there is something to receive, and leaves it there.
  void awaitInput() const;
  void stopSending() const;
  void close() { socket_.reset(); }
  [[nodiscard]] int descriptor() const { return socket_.get(); }

 private:
  std::optional<std::string> read(std::size_t size);

  FileDescriptor socket_;
  std::string unread_;
};

}  // namespace kelvane::tests
