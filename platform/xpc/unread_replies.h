#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

namespace kelvane::xpc {

/// Counts the replies that the socket has not yet accepted in full.
class UnreadReplies {
 public:
  /// A message was sent; this many of all bytes sent so far are still queued.
  void noteSent(std::size_t bytes, bool is_reply, std::uint64_t queued_bytes) {
    sent_ += bytes;
    if (is_reply && queued_bytes > 0) ends_.push_back(sent_);
  }
  void noteQueued(std::uint64_t queued_bytes) {
    while (!ends_.empty() && ends_.front() + queued_bytes <= sent_) ends_.pop_front();
  }
  [[nodiscard]] std::size_t count() const { return ends_.size(); }

 private:
  std::uint64_t sent_ = 0;          // bytes, of all messages
  std::deque<std::uint64_t> ends_;  // the offset at which each waiting reply ends
};

}  // namespace kelvane::xpc
