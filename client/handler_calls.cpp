#include "client/handler_calls.h"

#include <algorithm>
#include <utility>

#include "common/keys.h"
#include "support/protocols.h"

namespace kelvane::client {
namespace {

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
  explicit Door(std::shared_ptr<HandlerCalls> calls)
      : calls_(std::move(calls)), open_(calls_->activity_->begin()) {}
  ~Door() override {
    gone_->store(true);
    for (const auto& flag : asked_) flag->store(true);
  }
  Door(const Door&) = delete;
  Door& operator=(const Door&) = delete;

  void servicePurgeable(std::int32_t urgency, Dictionary info,
                        Reply<std::optional<Dictionary>> reply) override {
    calls_->submit(calls_->question_queue_,
                   [calls = calls_, gone = gone_, urgency, by = questionAnswerBy(), info = std::move(info),
                    reply = std::move(reply)](auto& handler) {
                     const auto request = calls->requestFor(urgency, info, by);
                     reply(answerOf(request ? handler.purgeable(*request, Cancellation(gone)) : Purgeable()));
                   });
  }

  void servicePurge(std::int32_t urgency, Dictionary info, Reply<std::optional<Dictionary>> reply) override {
    const Flag flag = calls_->beginPurge();
    std::erase_if(asked_, [](const Flag& other) { return other.use_count() == 1; });
    asked_.push_back(flag);
    const Moment by = calls_->pass_.answerBy(urgency, info);
    calls_->submit(calls_->work_queue_, [calls = calls_, flag, urgency, by, info = std::move(info),
                                         reply = std::move(reply)](auto& handler) {
      const auto request = flag->load() ? std::nullopt : calls->requestFor(urgency, info, by);
      const std::uint64_t gave = request ? handler.purge(*request, Cancellation(flag)) : 0;
      calls->pass_.answered(info[KELVANE_AMOUNT].unsignedLongLongValue(), gave);
      reply(amount(gave));
      calls->endPurge(flag);
    });
  }

  void servicePeriodic(std::int32_t urgency, Dictionary info,
                       Reply<std::optional<Dictionary>> reply) override {
    calls_->submit(calls_->work_queue_, [calls = calls_, urgency, by = periodicAnswerBy(),
                                         info = std::move(info), reply = std::move(reply)](auto& handler) {
      const auto request = calls->requestFor(urgency, info, by);
      reply(amount(request ? handler.periodic(*request) : 0));
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
  const std::shared_ptr<void> open_;
  const Flag gone_ = std::make_shared<std::atomic<bool>>(false);
  std::vector<Flag> asked_;  // on the connection's queue only; a flag that is only here has been answered
};

template <class F>
void HandlerCalls::submit(const dispatch_queue_t& queue, F call) {
  dispatch_async(queue, [self = shared_from_this(), running = activity_->begin(), call = std::move(call)] {
    if (!self->ended_) call(self->handler_);
  });
}

std::optional<Request> HandlerCalls::requestFor(std::int32_t urgency, const Dictionary& info,
                                                Moment answer_by) const {
  Request request;
  request.urgency = urgency;
  if (const std::string* const volume = info[KELVANE_VOLUME].string()) request.volume = *volume;
  request.amount = info[KELVANE_AMOUNT].unsignedLongLongValue();
  request.info = info;
  request.answer_by = answer_by;
  if (directories_.areAllVolumes()) return request;
  request.directories = pathsOf(directories_.openOn(request.volume));
  if (request.directories.empty()) return std::nullopt;
  return request;
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
