#pragma once

// Data that the socket has not accepted yet, in order, charged to the account of the peer's user.

#include <cstddef>
#include <list>
#include <memory>
#include <span>
#include <vector>

#include "platform/foundation/file_descriptor.h"
#include "platform/wire/account.h"
#include "platform/wire/socket_io.h"

namespace kelvane::wire {

class SendQueue {
 public:
  explicit SendQueue(std::shared_ptr<Account> account) : account_(std::move(account)) {}

  [[nodiscard]] bool empty() const { return segments_.empty(); }
  /// Not yet sent.
  [[nodiscard]] std::size_t bytes() const { return bytes_; }
  [[nodiscard]] bool beginsWithDescriptors() const {
    return !empty() && !segments_.front().descriptors.empty();
  }
  [[nodiscard]] bool carriesDescriptors() const;

  /// Charges the cost of keeping this many bytes. Empty if there is no room.
  [[nodiscard]] Charge reserve(std::size_t bytes) const;
  /// Copies both. Returns 0, or an errno if nothing was kept: ENOBUFS (the account has no room), EMFILE or
  /// EBADF. `room` is empty, or was reserved for at least this much.
  [[nodiscard]] int push(std::span<const std::byte> bytes, std::span<const int> descriptors,
                         Charge room = {});
  /// Writes once; without `with_descriptors`, stops before the first segment that carries any.
  WriteResult writeTo(int socket, bool with_descriptors);
  void clear();

 private:
  struct Segment {
    std::vector<std::byte> bytes;
    std::vector<FileDescriptor> descriptors;  // sent with the first byte
    Charge bytes_charge;                      // for the capacity
    Charge descriptor_charge;
  };

  bool extendLast(std::span<const std::byte> bytes);
  void taken(std::size_t count);

  const std::shared_ptr<Account> account_;
  std::list<Segment> segments_;
  std::size_t sent_ = 0;  // of the first segment
  std::size_t bytes_ = 0;
};

}  // namespace kelvane::wire
