#include "platform/xpc/incoming_call.h"

#include <utility>

#include "platform/xpc/answer.h"
#include "platform/xpc/connection.h"
#include "platform/xpc/delivery.h"
#include "platform/xpc/error.h"

namespace kelvane::xpc {
namespace {

thread_local const Delivery* innermost = nullptr;

}  // namespace

Delivery::Delivery(const std::shared_ptr<Connection>& from, const std::shared_ptr<IncomingCall>& handled)
    : connection(from), call(handled), outer_(std::exchange(innermost, this)) {}

Delivery::~Delivery() { innermost = outer_; }

const Delivery* Delivery::current() { return innermost; }

// --- answers ---

void IncomingCall::reply(std::string_view signature, FunctionRef<void(wire::Writer&)> write) {
  const ReturnAddress to = takeReturnAddress();
  if (to.serial != 0) {
    if (const auto connection = to.connection.lock()) {
      const ScratchUse use;
      wire::Outgoing& answer = scratchMessage();
      makeReply(answer, to.serial, signature, write);
      connection->sendAnswer(answer, to.serial);
    }
  }
  settle();
}

void IncomingCall::replyError(std::string_view name, std::string_view message) {
  const ReturnAddress to = takeReturnAddress();
  if (to.serial != 0) {
    if (const auto connection = to.connection.lock()) {
      wire::Outgoing& answer = scratchMessage();
      makeError(answer, to.serial, name, message);
      connection->sendAnswer(answer, to.serial);
    }
  }
  settle();
}

IncomingCall::ReturnAddress IncomingCall::takeReturnAddress() {
  const std::scoped_lock lock(mutex_);
  return std::exchange(return_address_, {});
}

// --- what it costs ---

/// What is released may wake others, so not under the lock.
void IncomingCall::settle() {
  Cost cost;
  std::shared_ptr<Cost> shared;
  const std::scoped_lock lock(mutex_);
  cost = std::move(cost_);
  shared = std::move(shared_cost_);
}

std::shared_ptr<IncomingCall::Cost> IncomingCall::shareCost() {
  const std::scoped_lock lock(mutex_);
  if (shared_cost_ == nullptr && cost_.call) shared_cost_ = std::make_shared<Cost>(std::move(cost_));
  return shared_cost_;
}

CurrentCall::CurrentCall(std::shared_ptr<IncomingCall> call)
    : call_(std::move(call)), cost_(call_ != nullptr ? call_->shareCost() : nullptr) {}

std::shared_ptr<wire::Account> CurrentCall::account() const {
  return call_ != nullptr ? call_->account_ : nullptr;
}

void CurrentCall::refuse(std::string_view name, std::string_view message) const {
  if (call_ != nullptr) call_->replyError(name, message);
}

CurrentCall currentCall() {
  const Delivery* const delivery = Delivery::current();
  return CurrentCall(delivery != nullptr ? delivery->call : nullptr);
}

}  // namespace kelvane::xpc
