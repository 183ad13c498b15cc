#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/dispatch/source.h"

namespace kelvane::client {

/// Tells when a socket may have come to be at a path, without looking at it time and again. Follows the path
/// through folders that do not exist yet or are made anew. Tells once too often rather than never.
class SocketWatcher {
 public:
  /// `appeared` is called on a thread of the pool, one call at a time; one may be under way when the watcher
  /// is destroyed.
  SocketWatcher(const std::string& path, std::function<void()> appeared);
  ~SocketWatcher();
  SocketWatcher(const SocketWatcher&) = delete;
  SocketWatcher& operator=(const SocketWatcher&) = delete;

  /// False when the kernel gives this user no more watches.
  [[nodiscard]] bool works() const { return works_; }

 private:
  class Watch;
  const std::shared_ptr<Watch> watch_;  // constant after construction
  const bool works_;
  EventSource source_;  // constructor and destructor only
};

}  // namespace kelvane::client
