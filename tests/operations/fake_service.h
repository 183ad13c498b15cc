#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/keys.h"
#include "platform/xpc/listener.h"
#include "support/protocols.h"
#include "support/service_record.h"

namespace kelvane::tests {

/// A service in this process, reached through a real endpoint and real sockets. It keeps what it was asked;
/// what it answers is up to the test, and is nothing at all (it stays silent) where the test gives no answer.
/// Any thread; give the answers before it is called.
class FakeService {
 public:
  using ResultReply = Reply<std::optional<Dictionary>>;
  struct Purge {
    std::int32_t urgency;
    Dictionary info;
    std::uint64_t asked() const { return info[KELVANE_AMOUNT].unsignedLongLongValue(); }
  };

  struct Question {
    std::int32_t urgency;
    Dictionary info;
  };

  explicit FakeService(std::string ID) : ID_(std::move(ID)), state_(std::make_shared<State>()) {
    listener_ = xpc::Listener::anonymousListener();
    listener_->setConnectionHandler([state = state_](const std::shared_ptr<xpc::Connection>& connection) {
      {
        const std::scoped_lock lock(state->mutex);
        state->connections.push_back(connection);
        ++state->opened;
      }
      connection->setExportedObject<KelvaneServiceProtocol>(std::make_shared<Object>(state));
      connection->setInterruptionHandler([state] { state->change([](State& it) { ++it.closed; }); });
      connection->resume();
    });
    listener_->resume();
    endpoint_ = listener_->takeEndpoint();
  }
  ~FakeService() {
    listener_->invalidate();
    dropConnections();
  }
  FakeService(const FakeService&) = delete;
  FakeService& operator=(const FakeService&) = delete;

  // --- what it answers ---

  void onPurge(std::function<void(const Purge& purge, const ResultReply& reply)> answer) {
    state_->on_purge = std::move(answer);
  }
  /// Answers every purge with what `amount` makes of the bytes asked.
  void purges(std::function<std::uint64_t(std::uint64_t asked)> amount) {
    onPurge([amount = std::move(amount)](const Purge& purge, const ResultReply& reply) {
      reply(Dictionary{{KELVANE_AMOUNT, amount(purge.asked())}});
    });
  }
  void onPurgeable(std::function<void(const Question& question, const ResultReply& reply)> answer) {
    state_->on_purgeable = std::move(answer);
  }
  /// Answers every question about purgeable space with this.
  void answersPurgeable(const Dictionary& answer) {
    onPurgeable([answer](const Question& /*question*/, const ResultReply& reply) { reply(answer); });
  }
  void answersPurgeable(std::nullopt_t) {
    onPurgeable([](const Question& /*question*/, const ResultReply& reply) { reply(std::nullopt); });
  }
  void onPing(std::function<void(const Reply<>& reply)> answer) { state_->on_ping = std::move(answer); }
  void answersCancel(bool answers) { state_->answers_cancel = answers; }
  void answersNotifications(bool answers) { state_->answers_notifications = answers; }
  /// Answers the first notification that it has not answered yet.
  void answerKeptNotification() {
    Reply<> reply;
    state_->change([&](State& it) {
      reply = std::move(it.unanswered_plain.front());
      it.unanswered_plain.erase(it.unanswered_plain.begin());
    });
    reply();
  }

  /// Answers the first question that it has been silent about.
  void answerKept(const std::optional<Dictionary>& answer) {
    ResultReply reply;
    state_->change([&](State& it) {
      reply = std::move(it.unanswered.front());
      it.unanswered.erase(it.unanswered.begin());
    });
    reply(answer);
  }

  // --- what it was asked ---

  [[nodiscard]] std::vector<Purge> purgesAsked() const {
    const std::scoped_lock lock(state_->mutex);
    return state_->purges;
  }
  [[nodiscard]] std::vector<Question> questions() const {
    const std::scoped_lock lock(state_->mutex);
    return state_->questions;
  }
  /// It answers none of these but with `answerKept`.
  [[nodiscard]] std::vector<Question> periodics() const {
    const std::scoped_lock lock(state_->mutex);
    return state_->periodics;
  }
  [[nodiscard]] std::vector<Dictionary> notifications() const {
    const std::scoped_lock lock(state_->mutex);
    return state_->notifications;
  }
  [[nodiscard]] int cancels() const { return count(&State::cancels); }
  [[nodiscard]] int pings() const { return count(&State::pings); }
  [[nodiscard]] int connectionsOpened() const { return count(&State::opened); }

  // The test program's time limit is the only one.
  void awaitPurges(std::size_t number) const {
    await([=](const State& it) { return it.purges.size() >= number; });
  }
  void awaitQuestions(std::size_t number) const {
    await([=](const State& it) { return it.questions.size() >= number; });
  }
  void awaitPeriodics(std::size_t number) const {
    await([=](const State& it) { return it.periodics.size() >= number; });
  }
  void awaitCancels(int number) const {
    await([=](const State& it) { return it.cancels >= number; });
  }
  void awaitPings(int number) const {
    await([=](const State& it) { return it.pings >= number; });
  }
  void awaitNotifications(std::size_t number) const {
    await([=](const State& it) { return it.notifications.size() >= number; });
  }
  /// Until so many of its connections were closed from the far end.
  void awaitClosed(int number) const {
    await([=](const State& it) { return it.closed >= number; });
  }

  /// As if the service had died, but for its endpoint.
  void dropConnections() {
    std::vector<std::shared_ptr<xpc::Connection>> dropped;
    {
      const std::scoped_lock lock(state_->mutex);
      dropped.swap(state_->connections);
    }
    for (const auto& connection : dropped) connection->invalidate();
  }

  // --- how it is known ---

  [[nodiscard]] const std::string& ID() const { return ID_; }
  [[nodiscard]] const xpc::Endpoint& endpoint() const { return endpoint_; }
  /// A new record of it, purging.
  [[nodiscard]] std::shared_ptr<KVService> record() const {
    auto service = std::make_shared<KVService>(ID_);
    service->setEndpoint(endpoint_);
    service->setDoesPurge(true);
    return service;
  }

 private:
  struct State {
    std::function<void(const Purge&, const ResultReply&)> on_purge;  // constant once called
    std::function<void(const Question&, const ResultReply&)> on_purgeable;
    std::function<void(const Reply<>&)> on_ping = [](const Reply<>& reply) { reply(); };
    bool answers_cancel = true;
    std::atomic<bool> answers_notifications = true;

    std::mutex mutex;  // guards all below
    std::condition_variable changed;
    std::vector<Purge> purges;
    std::vector<Question> questions;
    std::vector<Question> periodics;
    std::vector<Dictionary> notifications;
    std::vector<std::shared_ptr<xpc::Connection>> connections;
    std::vector<ResultReply> unanswered;  // kept, so that the caller goes on waiting
    std::vector<Reply<>> unanswered_plain;
    int cancels = 0;
    int pings = 0;
    int opened = 0;
    int closed = 0;

    template <class Change>
    void change(Change how) {
      const std::scoped_lock lock(mutex);
      how(*this);
      changed.notify_all();
    }
  };

  class Object final : public KelvaneServiceProtocol {
   public:
    explicit Object(std::shared_ptr<State> state) : state_(std::move(state)) {}

    void servicePurgeable(std::int32_t urgency, Dictionary info, ResultReply reply) override {
      const Question question{urgency, std::move(info)};
      state_->change([&](State& it) {
        it.questions.push_back(question);
        if (!it.on_purgeable) it.unanswered.push_back(reply);
      });
      if (state_->on_purgeable) state_->on_purgeable(question, reply);
    }
    void servicePurge(std::int32_t urgency, Dictionary info, ResultReply reply) override {
      const Purge purge{urgency, std::move(info)};
      state_->change([&](State& it) { it.purges.push_back(purge); });
      if (state_->on_purge) {
        state_->on_purge(purge, reply);
      } else {
        keep(reply);
      }
    }
    void servicePeriodic(std::int32_t urgency, Dictionary info, ResultReply reply) override {
      state_->change([&](State& it) {
        it.periodics.push_back({urgency, std::move(info)});
        it.unanswered.push_back(reply);
      });
    }
    void serviceCancelPurge(Reply<> reply) override {
      state_->change([&](State& it) { ++it.cancels; });
      if (state_->answers_cancel) {
        reply();
      } else {
        keep(reply);
      }
    }
    void servicePing(Reply<> reply) override {
      state_->change([&](State& it) { ++it.pings; });
      if (state_->on_ping) {
        state_->on_ping(reply);
      } else {
        keep(reply);
      }
    }
    void serviceNotify(Dictionary notification, Reply<> reply) override {
      const bool answers = state_->answers_notifications;
      if (!answers) keep(reply);
      state_->change([&](State& it) { it.notifications.push_back(notification); });
      if (answers) reply();
    }
    void serviceCallback(Dictionary /*info*/, ResultReply reply) override { keep(reply); }

   private:
    void keep(const ResultReply& reply) {
      state_->change([&](State& it) { it.unanswered.push_back(reply); });
    }
    void keep(const Reply<>& reply) {
      state_->change([&](State& it) { it.unanswered_plain.push_back(reply); });
    }

    const std::shared_ptr<State> state_;
  };

  template <class Condition>
  void await(Condition condition) const {
    std::unique_lock lock(state_->mutex);
    state_->changed.wait(lock, [&] { return condition(*state_); });
  }
  int count(int State::*what) const {
    const std::scoped_lock lock(state_->mutex);
    return (*state_).*what;
  }

  const std::string ID_;
  const std::shared_ptr<State> state_;
  std::shared_ptr<xpc::Listener> listener_;
  xpc::Endpoint endpoint_;
};

}  // namespace kelvane::tests
