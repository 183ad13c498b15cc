#pragma once

#include <memory>

namespace kelvane::xpc {

class Connection;
class IncomingCall;

/// Marks, on the calling thread, the connection whose message it is handling, and the call if the message is
/// one.
class Delivery {
 public:
  Delivery(const std::shared_ptr<Connection>& connection, const std::shared_ptr<IncomingCall>& call);
  ~Delivery();
  Delivery(const Delivery&) = delete;
  Delivery& operator=(const Delivery&) = delete;

  /// The innermost on this thread; null when there is none.
  static const Delivery* current();

  const std::shared_ptr<Connection>& connection;
  const std::shared_ptr<IncomingCall>& call;

 private:
  const Delivery* const outer_;
};

}  // namespace kelvane::xpc
