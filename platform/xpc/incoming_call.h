#pragma once

// A method call that came in, from its arguments to its answer.

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/foundation/function_ref.h"
#include "platform/wire/account.h"
#include "platform/wire/writer.h"

namespace kelvane::xpc {

class Connection;

/// Counts in its user's account, with its bytes, until it is done: its Reply was called or dropped, and
/// nobody holds what `keepCounted` returned. Any thread.
class IncomingCall : public std::enable_shared_from_this<IncomingCall> {
 public:
  IncomingCall() = default;
  IncomingCall(const IncomingCall&) = delete;
  IncomingCall& operator=(const IncomingCall&) = delete;
  virtual ~IncomingCall();

  /// Calls the object's method. Once, on the connection's queue.
  virtual void run() = 0;

  // The first answer counts. None is sent to a caller who wants none, or whose connection has ended.

  /// `write` writes the results, which have this signature; it is called before this returns, or not at all.
  void reply(std::string_view signature, FunctionRef<void(wire::Writer&)> write);
  void replyError(std::string_view name, std::string_view message);

  /// The call counts as not done for as long as what this returns lives. Null when it is done already.
  [[nodiscard]] std::shared_ptr<void> keepCounted();

 private:
  friend class Connection;

  /// What the call costs its user.
  struct Cost {
    wire::Charge call;
    wire::Charge bytes;
    wire::Charge descriptors;
  };
  /// Where the answer goes to; a serial of 0 when none is wanted, or none any more.
  struct ReturnAddress {
    std::weak_ptr<Connection> connection;
    std::uint32_t serial = 0;
  };

  [[nodiscard]] ReturnAddress takeReturnAddress();
  void settle();

  std::mutex mutex_;  // guards all below; nothing is called and no other is taken while it is held
  ReturnAddress return_address_;
  Cost cost_;
  std::shared_ptr<Cost> shared_cost_;  // where the cost is once `keepCounted` was called
};

/// For handlers that queue further work: keeps the call that the calling thread is handling counted as not
/// done. Null where no call is handled, and once it has been answered.
[[nodiscard]] std::shared_ptr<void> currentCall();

}  // namespace kelvane::xpc
