#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kelvane::xpc {

/// Follows, from outside, how far the bus library has read into a socket's stream of messages. The library
/// takes in a message of up to 128 MiB without asking, and says neither where it stands nor that it dropped
/// one. So the next message's header is looked at before the library may read, and the bytes that it then
/// takes are counted. That is exact, because it reads to the end of a message and not beyond. A message of
/// which all was seen in that look need not be counted: the library takes it whole.
///
/// The handshake's last read may bring messages along. So the handshake is looked at as well, and what stands
/// behind its end is gone through. Only when bytes come between looking and reading are they not seen; then
/// nothing is known, until a message has ended, but how many bytes were taken, and the limit holds for those.
/// A peer that deceives about the handshake's end gains no more: as soon as as many bytes have been taken as
/// a header claimed, and no message has come of it, the connection is done.
///
/// Used by one thread at a time. Does not own the socket.
class Intake {
 public:
  enum class Next { nothing, part_of_header, message, end, too_large, malformed };
  enum class Progress { none, part, dropped, too_large };

  /// Before and after the library may read a part of the handshake. False when there is nothing to be read;
  /// then it had better not, because it writes first, and reads what comes upon that.
  bool lookAtHandshake(int socket);
  void noteHandshake(std::uint64_t taken);
  /// The library took all that the last look at the handshake saw, no more, and that was all there was: what
  /// comes later, the socket tells.
  [[nodiscard]] bool handshakeEmptiedSocket() const { return handshake_emptied_; }
  /// How many of the bytes looked at go up to the end of the line `last` of the handshake, when that is among
  /// them; else 0.
  [[nodiscard]] std::size_t bytesThrough(std::string_view last) const;
  /// The handshake is over; its last line is `last`, or, when that is empty, whatever line came last.
  /// Tells what stands behind it.
  Progress endHandshake(std::string_view last, std::uint64_t most_bytes);

  /// No message is under way and the next one's header can be looked at.
  [[nodiscard]] bool atBoundary() const { return known_ && remaining_ == 0 && brought_along_ == 0; }
  /// The library holds a part of a message.
  [[nodiscard]] bool underWay() const { return remaining_ > 0 || taken_ > 0; }
  /// At a boundary: what stands next in the socket, which keeps it.
  Next look(int socket, std::uint64_t most_bytes);
  /// What the header that was looked at last claims as its message's size; 0 when there was none.
  [[nodiscard]] std::uint64_t claimed() const { return claimed_; }

  /// The serial in that header; 0 when there was none.
  [[nodiscard]] std::uint32_t serial() const { return serial_; }
  /// The look saw a whole message: when the library reads, it takes that.
  [[nodiscard]] bool wholeMessageIsNext() const { return seen_ > 0 && seen_ >= claimed_; }
  /// The socket holds nothing at all.
  [[nodiscard]] static bool nothingWaits(int socket);

  /// Before the library may read.
  void startCounting(int socket);
  /// After it, when it may have read: how many bytes it has taken.
  [[nodiscard]] std::uint64_t counted(int socket);
  /// A message was handed out.
  void noteMessage(std::uint64_t taken);
  /// None was; `done` says that the library had nothing left to do. Tells a message under way from one that
  /// it took to its end and dropped.
  Progress noteNoMessage(std::uint64_t taken, bool done, std::uint64_t most_bytes);

 private:
  Progress goThrough(std::string_view messages, std::uint64_t most_bytes);
  std::int64_t peek(int socket, char* buffer, std::size_t size);

  std::string handshake_;            // what the library took, followed by what was looked at
  std::size_t handshake_taken_ = 0;  // the first part's size
  bool handshake_seen_ = true;       // nothing was taken that had not been looked at
  bool handshake_emptied_ = false;
  std::uint64_t brought_along_ = 0;  // whole messages that came with the handshake, not yet handed out
  bool known_ = false;               // where messages begin
  std::uint64_t claimed_ = 0;
  std::uint64_t seen_ = 0;  // bytes that the last look saw, as many as it takes
  std::uint32_t serial_ = 0;
  bool counting_ = false;
  std::uint64_t counted_ = 0;         // since the counter was set
  std::uint64_t counted_before_ = 0;  // of those, before the counting was started
  std::uint64_t remaining_ = 0;       // of the message under way, while that is known
  std::uint64_t taken_ = 0;           // without a message, while it is not
};

}  // namespace kelvane::xpc
