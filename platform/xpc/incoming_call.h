#pragma once

// A received method call, from its arguments to its answer.

#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>

#include "platform/foundation/function_ref.h"
#include "platform/wire/account.h"
#include "platform/wire/writer.h"

namespace kelvane::xpc {

class Connection;

/// Charged to its user's account, with its bytes and descriptors, until it is finished: its Reply was called
/// or dropped, and no CurrentCall refers to it. Any thread.
class IncomingCall : public std::enable_shared_from_this<IncomingCall> {
 public:
  IncomingCall() = default;
  IncomingCall(const IncomingCall&) = delete;
  IncomingCall& operator=(const IncomingCall&) = delete;
  virtual ~IncomingCall() = default;

  /// Calls the object's method. Once, on the connection's queue.
  virtual void run() = 0;

  // Only the first answer counts. Nothing is sent to a caller that expects no reply, or whose connection has
  // ended.

  /// `write` writes the results, which have this signature; it is called before this returns, or not at all.
  void reply(std::string_view signature, FunctionRef<void(wire::Writer&)> write);
  void replyError(std::string_view name, std::string_view message);

 private:
  friend class Connection;
  friend class CurrentCall;

  /// What the call costs its user.
  struct Cost {
    wire::Charge call;
    wire::Charge bytes;
    wire::Charge memory;  // of the values read, beyond the bytes
    wire::Charge descriptors;
  };
  /// Where to send the answer; serial 0 if no reply is expected, or it was already sent.
  struct ReturnAddress {
    std::weak_ptr<Connection> connection;
    std::uint32_t serial = 0;
  };

  [[nodiscard]] ReturnAddress takeReturnAddress();
  [[nodiscard]] std::shared_ptr<Cost> shareCost();
  void settle();

  std::shared_ptr<wire::Account> account_;  // constant once the call is made

  std::mutex mutex_;  // guards all below; nothing is called and no other is taken while it is held
  ReturnAddress return_address_;
  Cost cost_;
  std::shared_ptr<Cost> shared_cost_;  // holds the cost once it is shared
};

/// The call that a handler works on, for handlers that queue further work. While a copy exists the call
/// counts as unfinished, unless it was answered before the first copy was made. Any thread.
class CurrentCall {
 public:
  /// No call.
  CurrentCall() = default;
  explicit CurrentCall(std::shared_ptr<IncomingCall> call);

  explicit operator bool() const { return call_ != nullptr; }
  /// The caller's; null without a call.
  [[nodiscard]] std::shared_ptr<wire::Account> account() const;
  /// Answers with an error; a later answer does nothing.
  void refuse(std::string_view name, std::string_view message) const;

 private:
  std::shared_ptr<IncomingCall> call_;
  std::shared_ptr<IncomingCall::Cost> cost_;
};

/// The call that the calling thread is handling; none elsewhere.
[[nodiscard]] CurrentCall currentCall();

}  // namespace kelvane::xpc
