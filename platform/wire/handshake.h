#pragma once

// The SASL handshake with its one mechanism, EXTERNAL, as state machines: bytes in, bytes out. No sockets, no
// time. Source: the D-Bus specification, "Authentication Protocol".

#include <sys/types.h>
#include <cstddef>
#include <string>
#include <string_view>

namespace kelvane::wire {

/// A handshake may take so many bytes, the line's ends included.
inline constexpr std::size_t longest_handshake = 16 << 10;

enum class HandshakeState { going_on, done, failed };

/// The side that accepts.
class ServerHandshake {
 public:
  /// Accepts whoever says to be `peer`, the user that the kernel recorded, or leaves that out. `server` is
  /// this server's 32 hexadecimal digits.
  ServerHandshake(uid_t peer, std::string server, bool takes_descriptors);

  /// Goes on with what came; `input` is shortened by what was used. After `done` the rest are messages.
  /// What is to be sent is appended to `output`.
  HandshakeState advance(std::string_view& input, std::string& output);
  /// The peer asked to pass descriptors and was told that it may.
  [[nodiscard]] bool passesDescriptors() const { return passes_descriptors_; }

 private:
  bool passes_descriptors_ = false;
  // The implementation is the handshake's.
};

/// The side that connects. It sends all that it has to say at once, and its first messages right behind.
class ClientHandshake {
 public:
  ClientHandshake(uid_t self, bool passes_descriptors);

  /// What is to be sent, BEGIN included. Messages may follow at once, unless they carry descriptors.
  [[nodiscard]] std::string opening() const;
  HandshakeState advance(std::string_view& input);
  /// After `done`: the server takes descriptors.
  [[nodiscard]] bool passesDescriptors() const { return passes_descriptors_; }

 private:
  bool passes_descriptors_ = false;
  // The implementation is the handshake's.
};

}  // namespace kelvane::wire
