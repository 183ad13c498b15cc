#pragma once

// What a socket did not take, in order, until it does: charged to the account that pays for the peer.

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

  /// Charges what keeping so many bytes would cost. Empty when there is no room.
  [[nodiscard]] Charge reserve(std::size_t bytes) const;
  /// Copies both. 0, or an errno when nothing was kept: ENOBUFS where the account has no room, EMFILE,
  /// EBADF. `room` is empty, or was reserved for at least that much.
  [[nodiscard]] int push(std::span<const std::byte> bytes, std::span<const int> descriptors,
                         Charge room = {});
  /// Writes once; without `with_descriptors` it stops before the first that carries any.
  WriteResult writeTo(int socket, bool with_descriptors);
  void clear();

 private:
  struct Segment {
    std::vector<std::byte> bytes;
    std::vector<FileDescriptor> descriptors;  // pass with the first byte
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
