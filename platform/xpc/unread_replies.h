#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

namespace kelvane::xpc {

/// Counts the replies that a socket has not yet taken whole, among all that is sent through it.
class UnreadReplies {
 public:
  /// A message was sent, and so much of all that was ever sent is not yet taken.
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
  std::deque<std::uint64_t> ends_;  // where, among these, each reply that waits ends
};

}  // namespace kelvane::xpc
