#pragma once

#include <memory>
#include <optional>

#include "platform/foundation/file_descriptor.h"
#include "platform/wire/account.h"

namespace kelvane::xpc {

/// The handle for opening connections to a listener: one end of a SOCK_SEQPACKET socket pair
/// whose other end the listener reads. Cheap to copy; the descriptor closes with the last copy,
/// which the listener notices. Any thread.
class Endpoint {
 public:
  Endpoint() = default;
  /// Takes a received descriptor; nothing when it is not a connected local SOCK_SEQPACKET socket.
  /// `payer` is the account of the peer that passed it, charged for the connections opened
  /// through it; null for this process itself.
  static std::optional<Endpoint> adopt(FileDescriptor descriptor,
                                       std::shared_ptr<wire::Account> payer = nullptr);

  /// A connection that the listener has not received yet.
  struct Opening {
    FileDescriptor ours;
    FileDescriptor theirs;
  };
  /// Creates a stream socket pair. Both are empty if there is no endpoint, or no file descriptor left.
  [[nodiscard]] Opening begin() const;
  /// Sends the listener its end. False if the listener is gone or does not read. Never blocks.
  [[nodiscard]] bool pass(const FileDescriptor& theirs) const;
  /// Does both; returns our end, or nothing. Data written before the listener gets its end wakes the listener
  /// only once, so a connection writes first.
  [[nodiscard]] FileDescriptor open() const;

  [[nodiscard]] int descriptor() const { return handle_ ? handle_->descriptor.get() : -1; }
  /// Null for this process itself.
  [[nodiscard]] std::shared_ptr<wire::Account> payer() const { return handle_ ? handle_->payer : nullptr; }
  explicit operator bool() const { return handle_ != nullptr; }
  /// True when both are copies of one handle.
  friend bool operator==(const Endpoint&, const Endpoint&) = default;

 private:
  struct Handle {
    FileDescriptor descriptor;
    std::shared_ptr<wire::Account> payer;
  };
  std::shared_ptr<const Handle> handle_;
};

}  // namespace kelvane::xpc
