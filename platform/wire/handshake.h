#pragma once

// The SASL handshake with the EXTERNAL mechanism, as state machines: bytes in, bytes out. Sockets and time
// limits are the caller's. Source: D-Bus, chapter "Authentication Protocol".

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kelvane::wire {

/// The most bytes that a handshake may take, including line ends.
inline constexpr std::size_t longest_handshake = 16 << 10;
/// The server gives up after this many lines that it answered with REJECTED or ERROR.
inline constexpr unsigned most_refusals = 8;

enum class HandshakeState { going_on, done, failed };

/// The side that accepts.
class ServerHandshake {
 public:
  /// Accepts a client that claims to be `peer`, the user that the kernel recorded, or that claims no user.
  /// `server` is this server's 32 hexadecimal digits.
  ServerHandshake(uid_t peer, std::string server, bool takes_descriptors);

  /// Continues with the received bytes, and removes from `input` what was used. An incomplete line stays in
  /// `input`; pass it again with the bytes that follow. After `done` the rest are messages. Bytes to send are
  /// appended to `output`.
  HandshakeState advance(std::string_view& input, std::string& output);
  /// The peer asked to pass descriptors, and this side agreed.
  [[nodiscard]] bool passesDescriptors() const { return passes_descriptors_; }

 private:
  enum class Expected : std::uint8_t { nul, authentication, identity, begin };

  HandshakeState step(std::string_view line, std::string& output);
  void authenticate(std::string_view mechanism_and_identity, std::string& output);
  void judge(std::string_view identity, std::string& output);
  void agree(std::string& output);
  void reject(std::string& output);
  void refuse(std::string_view reason, std::string& output);

  const uid_t peer_;
  const std::string server_;
  const bool takes_descriptors_;
  Expected expected_ = Expected::nul;
  bool passes_descriptors_ = false;
  std::size_t used_ = 0;  // bytes
  unsigned refusals_ = 0;
};

/// The side that connects. It sends all its lines at once, and its first messages right after them.
class ClientHandshake {
 public:
  ClientHandshake(uid_t self, bool passes_descriptors);

  /// The bytes to send, including BEGIN. Messages may follow at once, unless they carry descriptors.
  [[nodiscard]] std::string opening() const;
  /// Like the server's.
  HandshakeState advance(std::string_view& input);
  /// After `done`: the server accepts descriptors.
  [[nodiscard]] bool passesDescriptors() const { return passes_descriptors_; }

 private:
  enum class Expected : std::uint8_t { ok, agreement };

  HandshakeState step(std::string_view line);

  const uid_t self_;
  const bool asks_for_descriptors_;
  Expected expected_ = Expected::ok;
  bool passes_descriptors_ = false;
  std::size_t used_ = 0;  // bytes
};

}  // namespace kelvane::wire
