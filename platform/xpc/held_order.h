#pragma once

#include <memory>

#include "platform/dispatch/suspension.h"
#include "platform/xpc/connection.h"

namespace kelvane::xpc {

/// Suspends the queue of the calling connection while a call waits for its answer: later calls wait without
/// holding a thread. The suspension ends with the last copy. A handler keeps one until it has called its
/// reply; otherwise answers may overtake each other. Does nothing for a call that no connection delivered.
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
