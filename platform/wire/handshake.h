#pragma once

// The SASL handshake with its one mechanism, EXTERNAL, as state machines: bytes in, bytes out. No sockets, no
// time. Source: the D-Bus specification, "Authentication Protocol".

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kelvane::wire {

/// A handshake may take so many bytes, the line's ends included.
inline constexpr std::size_t longest_handshake = 16 << 10;
/// After so many lines that were answered with REJECTED or ERROR the server gives up.
inline constexpr unsigned most_refusals = 8;

enum class HandshakeState { going_on, done, failed };

/// The side that accepts.
class ServerHandshake {
 public:
  /// Accepts whoever says to be `peer`, the user that the kernel recorded, or leaves that out. `server` is
  /// this server's 32 hexadecimal digits.
  ServerHandshake(uid_t peer, std::string server, bool takes_descriptors);

  /// Goes on with what came; `input` is shortened by what was used. A line whose end has not come is left
  /// in it, to be given again with what follows. After `done` the rest are messages. What is to be sent is
  /// appended to `output`.
  HandshakeState advance(std::string_view& input, std::string& output);
  /// The peer asked to pass descriptors and was told that it may.
  [[nodiscard]] bool passesDescriptors() const { return passes_descriptors_; }

 private:
  enum class Expected : std::uint8_t { nul, authentication, identity, begin, nothing };

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

/// The side that connects. It sends all that it has to say at once, and its first messages right behind.
class ClientHandshake {
 public:
  ClientHandshake(uid_t self, bool passes_descriptors);

  /// What is to be sent, BEGIN included. Messages may follow at once, unless they carry descriptors.
  [[nodiscard]] std::string opening() const;
  /// As the server's.
  HandshakeState advance(std::string_view& input);
  /// After `done`: the server takes descriptors.
  [[nodiscard]] bool passesDescriptors() const { return passes_descriptors_; }

 private:
  enum class Expected : std::uint8_t { ok, agreement, nothing };

  HandshakeState step(std::string_view line);

  const uid_t self_;
  const bool asks_for_descriptors_;
  Expected expected_ = Expected::ok;
  bool passes_descriptors_ = false;
  std::size_t used_ = 0;  // bytes
};

}  // namespace kelvane::wire
