#pragma once

#include <memory>

#include "platform/dispatch/suspension.h"
#include "platform/xpc/connection.h"

namespace kelvane::xpc {

/// Keeps the queue of the calling connection suspended, for a call that is answered later: the calls after it
/// wait, and no thread does. Ends with its last copy; a handler keeps one until it has called its reply, or
/// else answers may overtake each other. Holds nothing for a call that came over no connection.
class HeldOrder {
 public:
  HeldOrder() {
    if (const auto connection = Connection::current())
      suspension_ = std::make_shared<Suspension>(connection->queue());
  }

 private:
  std::shared_ptr<Suspension> suspension_;
};

}  // namespace kelvane::xpc
