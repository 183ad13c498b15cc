#include "client/handler_calls.h"

#include <algorithm>
#include <utility>

#include "common/keys.h"
#include "support/protocols.h"

namespace kelvane::client {
namespace {

Request requestOf(std::int32_t urgency, Dictionary info) {
  Request request;
  request.urgency = urgency;
  if (const std::string* const volume = info[KELVANE_VOLUME].string()) request.volume = *volume;
  request.amount = info[KELVANE_AMOUNT].unsignedLongLongValue();
  request.info = std::move(info);
  return request;
}

std::optional<Dictionary> answerOf(const std::optional<Purgeable>& purgeable) {
  if (!purgeable) return std::nullopt;
  Dictionary answer{{KELVANE_AMOUNT, purgeable->bytes}};
  if (purgeable->opt_out) answer.set(KELVANE_OPT_OUT, true);
  return answer;
}

Dictionary amount(std::uint64_t bytes) { return Dictionary{{KELVANE_AMOUNT, bytes}}; }

}  // namespace

/// The service as one connection sees it. Its methods run on the connection's queue. It goes when the
/// connection has ended: nobody then waits for the purges asked for over it, nor for an answer.
class HandlerCalls::Door final : public KelvaneServiceProtocol {
 public:
  explicit Door(std::shared_ptr<HandlerCalls> calls) : calls_(std::move(calls)) {}
  ~Door() override {
    gone_->store(true);
    for (const auto& flag : asked_) flag->store(true);
  }
  Door(const Door&) = delete;
  Door& operator=(const Door&) = delete;

  void servicePurgeable(std::int32_t urgency, Dictionary info,
                        Reply<std::optional<Dictionary>> reply) override {
    calls_->submit(calls_->question_queue_,
                   [gone = gone_, urgency, info = std::move(info), reply = std::move(reply)](auto& handler) {
                     reply(answerOf(handler.purgeable(requestOf(urgency, info), Cancellation(gone))));
                   });
  }

  void servicePurge(std::int32_t urgency, Dictionary info, Reply<std::optional<Dictionary>> reply) override {
    const Flag flag = calls_->beginPurge();
    std::erase_if(asked_, [](const Flag& other) { return other.use_count() == 1; });
    asked_.push_back(flag);
    calls_->submit(calls_->work_queue_, [calls = calls_, flag, urgency, info = std::move(info),
                                         reply = std::move(reply)](auto& handler) {
      const bool wanted = !flag->load();
      reply(amount(wanted ? handler.purge(requestOf(urgency, info), Cancellation(flag)) : 0));
      calls->endPurge(flag);
    });
  }

  void servicePeriodic(std::int32_t urgency, Dictionary info,
                       Reply<std::optional<Dictionary>> reply) override {
    calls_->submit(calls_->work_queue_,
                   [urgency, info = std::move(info), reply = std::move(reply)](auto& handler) {
                     reply(amount(handler.periodic(requestOf(urgency, info))));
                   });
  }

  /// The daemon may hang up right after this, so the answer waits for nothing.
  void serviceCancelPurge(Reply<> reply) override {
    calls_->cancelPurges();
    reply();
    calls_->submit(calls_->event_queue_, [](auto& handler) { handler.cancelPurge(); });
  }

  void servicePing(Reply<> reply) override { reply(); }

  void serviceNotify(Dictionary notification, Reply<> reply) override {
    calls_->submit(calls_->event_queue_,
                   [notification = std::move(notification), reply = std::move(reply)](auto& handler) {
                     for (const auto& [name, value] : notification) handler.notify(name, value);
                     reply();
                   });
  }

  void serviceCallback(Dictionary info, Reply<std::optional<Dictionary>> reply) override {
    calls_->submit(calls_->question_queue_, [info = std::move(info), reply = std::move(reply)](
                                                auto& handler) { reply(handler.callback(info)); });
  }

 private:
  const std::shared_ptr<HandlerCalls> calls_;
  const Flag gone_ = std::make_shared<std::atomic<bool>>(false);
  std::vector<Flag> asked_;  // on the connection's queue only; a flag that is only here has been answered
};

template <class F>
void HandlerCalls::submit(const dispatch_queue_t& queue, F call) {
  dispatch_async(queue, [self = shared_from_this(), call = std::move(call)] {
    if (!self->ended_) call(self->handler_);
  });
}

void HandlerCalls::serve(const std::shared_ptr<xpc::Connection>& connection) {
  connection->setExportedObject<KelvaneServiceProtocol>(std::make_shared<Door>(shared_from_this()));
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(connections_, [](const auto& known) { return known.expired(); });
    connections_.push_back(connection);
  }
  connection->resume();
  if (ended_) connection->invalidate();
}

void HandlerCalls::report(ServiceState state, const std::string& reason) {
  submit(event_queue_, [state, reason](auto& handler) { handler.stateChanged(state, reason); });
}

/// Whatever passes the look at `ended_` runs on one of the queues, and is waited for there.
void HandlerCalls::end() {
  ended_ = true;
  std::vector<std::weak_ptr<xpc::Connection>> open;
  {
    const std::lock_guard lock(mutex_);
    open = connections_;
  }
  for (const auto& weak : open) {
    if (const auto connection = weak.lock()) connection->invalidate();
  }
  cancelPurges();
  for (const auto* const queue : {&work_queue_, &question_queue_, &event_queue_})
    dispatch_sync(*queue, [] {});
}

HandlerCalls::Flag HandlerCalls::beginPurge() {
  auto flag = std::make_shared<std::atomic<bool>>(ended_.load());
  const std::lock_guard lock(mutex_);
  purges_.insert(flag);
  return flag;
}

void HandlerCalls::endPurge(const Flag& flag) {
  const std::lock_guard lock(mutex_);
  purges_.erase(flag);
}

void HandlerCalls::cancelPurges() {
  const std::lock_guard lock(mutex_);
  for (const auto& flag : purges_) flag->store(true);
}

bool mayCall(uid_t peer, const std::optional<std::vector<uid_t>>& callers,
             const std::optional<uid_t>& daemon) {
  if (callers) return std::find(callers->begin(), callers->end(), peer) != callers->end();
  return peer == 0 || peer == daemon;
}

}  // namespace kelvane::client
