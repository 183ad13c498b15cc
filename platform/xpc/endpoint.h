#pragma once

#include <memory>
#include <optional>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::xpc {

/// The handle through which connections to somebody's listener are opened: one end of a SOCK_SEQPACKET socket
/// pair whose other end the listener reads. Cheap to copy; the descriptor closes with the last copy, which
/// the listener notices. Any thread.
class Endpoint {
 public:
  Endpoint() = default;
  /// Takes a descriptor that came from outside; nothing when it is not a connected local SOCK_SEQPACKET
  /// socket.
  static std::optional<Endpoint> adopt(FileDescriptor descriptor);

  /// Makes a stream socket pair, hands one end to the listener and returns the other. Empty when the listener
  /// is gone or does not read. Never blocks.
  [[nodiscard]] FileDescriptor open() const;

  [[nodiscard]] int descriptor() const { return descriptor_ ? descriptor_->get() : -1; }
  explicit operator bool() const { return descriptor_ != nullptr; }
  /// True when both are copies of one handle.
  friend bool operator==(const Endpoint&, const Endpoint&) = default;

 private:
  std::shared_ptr<const FileDescriptor> descriptor_;
};

}  // namespace kelvane::xpc
