#pragma once

// Asks the services that declared periodic work to do it, on one volume.
//
// Only services already in the in-flight table are called, and nothing fills the table before it is checked.
// So at present no service is called, and the amount is 0.

#include <functional>
#include <memory>

#include "operations/operation.h"

namespace kelvane {

class KelvanePeriodicOperation final : public KelvaneOperation {
 public:
  /// As the base's, but only with the services that do periodic work.
  static std::shared_ptr<KelvanePeriodicOperation> initWithInfo(const Value& info, Services services);
  explicit KelvanePeriodicOperation(Key key) : KelvaneOperation(key) {}

  /// Calls the services, waits at most 15 seconds for the connections to end, and calls the completion once,
  /// on this thread, before it returns. The result is KELVANE_AMOUNT, the bytes that the last reply reported.
  void startOperation(const std::function<void(const Dictionary& result)>& completion);
};

}  // namespace kelvane
