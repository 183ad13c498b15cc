#pragma once

#include <memory>
#include <string>
#include <variant>

#include "kelvane/value.h"
#include "platform/dispatch/queue.h"
#include "support/recent_info.h"

namespace kelvane {

/// What the state holds under a key: a value, or a record that was rebuilt from its archive.
using StateObject = std::variant<Value, std::shared_ptr<KelvaneRecentInfo>>;

/// What operations need of the central object: the state that outlives them. All but `defaults_queue` itself
/// is called on `defaults_queue` only; a call from elsewhere is fatal.
class PersistentState {
 public:
  virtual ~PersistentState() = default;

  [[nodiscard]] virtual const dispatch_queue_t& defaults_queue() const = 0;
  /// A returned record belongs to the state: store it after changing it.
  [[nodiscard]] virtual StateObject clientGetStateSync(const std::string& key) = 0;
  /// Nothing removes the key; a record is never null. A record may stay in memory until
  /// `settleState` or until another access to the state: every answer to a question stores it, and
  /// only the last one needs to be written.
  virtual void clientSetStateSync(const StateObject& value, const std::string& key) = 0;
  /// When this returns, what was stored so far is in the file.
  virtual void settleState() = 0;
};

}  // namespace kelvane
