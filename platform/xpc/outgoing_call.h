#pragma once

// An outgoing method call, until its reply or error has been delivered.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/wire/account.h"
#include "platform/wire/reader.h"
#include "platform/xpc/error.h"

namespace kelvane::xpc {

using ErrorHandler = std::function<void(const Error&)>;

/// Created by a proxy and passed to the connection, whose lock guards it until it moves to the connection's
/// queue. It is destroyed there.
class OutgoingCall {
 public:
  /// `signature` is that of the expected reply and lives as long as the process, as `member` does.
  OutgoingCall(const char* member, const std::string& signature, std::shared_ptr<const ErrorHandler> on_error)
      : member_(member), signature_(signature), on_error_(std::move(on_error)) {}
  OutgoingCall(const OutgoingCall&) = delete;
  OutgoingCall& operator=(const OutgoingCall&) = delete;
  virtual ~OutgoingCall() = default;

  [[nodiscard]] const char* member() const { return member_; }
  [[nodiscard]] const std::string& replySignature() const { return signature_; }

  /// Reads the results of a reply of the expected signature. Invalid if the reader has a fault.
  virtual void read(wire::Reader& in) = 0;
  void fail(Error error) { error_ = std::move(error); }
  /// The charge to the peer's user for the reply until it is delivered: its bytes, and the memory of its
  /// values beyond them.
  void hold(wire::Charge bytes, wire::Charge memory) {
    bytes_ = std::move(bytes);
    memory_ = std::move(memory);
  }

  /// On the connection's queue, once: calls the error handler after `fail`, otherwise the reply handler with
  /// the values read.
  void finish() {
    if (!error_) {
      deliver();
    } else if (on_error_ != nullptr && *on_error_) {
      (*on_error_)(*error_);
    }
  }

 protected:
  virtual void deliver() = 0;

 private:
  const char* const member_;
  const std::string& signature_;
  const std::shared_ptr<const ErrorHandler> on_error_;  // shared by the calls of one proxy
  std::optional<Error> error_;
  wire::Charge bytes_;
  wire::Charge memory_;
};

}  // namespace kelvane::xpc
