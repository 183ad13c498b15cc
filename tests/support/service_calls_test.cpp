#include "support/service_calls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "common/keys.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/fake_service.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/signal.h"

namespace kelvane::tests {
namespace {

using Proxy = std::shared_ptr<KelvaneServiceProtocol>;

/// Counts the calls of an invalidation handler, and tells when the handler itself is gone.
class Invalidation {
 public:
  Block handler() {
    auto gone = std::shared_ptr<void>(nullptr, [this](void*) { gone_(); });
    return [this, gone = std::move(gone)] {
      ++count_;
      invalidated_();
    };
  }
  /// Blocks until the handler was called and dropped, after which it can never be called again.
  void await() {
    invalidated_.wait();
    gone_.wait();
    EXPECT_EQ(count_, 1);
  }
  [[nodiscard]] int count() const { return count_; }

 private:
  std::atomic<int> count_{0};
  Signal invalidated_;
  Signal gone_;
};

class ServiceCall : public testing::Test {
 protected:
  void SetUp() override {
    service_->answer([](const FakeService::Call& call) { return std::optional(call.info); });
    record_->setEndpoint(service_->listen());
  }
  void TearDown() override { service_->stop(); }

  const std::shared_ptr<FakeService> service_ = FakeService::make();
  const std::shared_ptr<KVService> record_ = std::make_shared<KVService>("com.example.cache");
  Invalidation invalidation_;
  Signal replied_;
};

const Dictionary info{{KELVANE_VOLUME, "/"}, {KELVANE_AMOUNT, 5}};

TEST_F(ServiceCall, ARequestReachesTheServiceAndItsReplyComesBack) {
  const auto calling_thread = std::this_thread::get_id();
  CallServiceAsync(
      record_,
      [&](const Proxy& proxy, const Done& done) {
        EXPECT_EQ(std::this_thread::get_id(), calling_thread);
        proxy->servicePurge(2, info, [&, done](const std::optional<Dictionary>& reply) {
          EXPECT_EQ(reply, info);
          done();
        });
      },
      invalidation_.handler());
  invalidation_.await();
  ASSERT_EQ(service_->calls().size(), 1U);
  EXPECT_EQ(service_->calls()[0].method, "servicePurge");
  EXPECT_EQ(service_->calls()[0].urgency, 2);
  EXPECT_EQ(service_->calls()[0].info, info);
}

TEST_F(ServiceCall, EachCallHasAConnectionOfItsOwn) {
  Invalidation other;
  for (Invalidation* it : {&invalidation_, &other}) {
    CallServiceAsync(
        record_, [&](const Proxy& proxy, const Done& done) { proxy->servicePing([done] { done(); }); },
        it->handler());
  }
  invalidation_.await();
  other.await();
  EXPECT_EQ(service_->connectionsEver(), 2U);
}

TEST_F(ServiceCall, DoneMayBeCalledAnyNumberOfTimes) {
  Done kept;
  CallServiceAsync(
      record_, [&](const Proxy& /*proxy*/, const Done& done) { kept = done; }, invalidation_.handler());
  EXPECT_EQ(invalidation_.count(), 0);
  kept();
  kept();
  invalidation_.await();
  kept();
}

TEST_F(ServiceCall, AReplyDoesNotEndTheConnectionAndDroppingTheLastDoneDoes) {
  Done kept;
  CallServiceAsync(
      record_,
      [&](const Proxy& proxy, const Done& done) {
        kept = done;
        proxy->servicePing([&] { replied_(); });
      },
      invalidation_.handler());
  replied_.wait();
  Done copy = kept;
  kept = nullptr;
  EXPECT_EQ(invalidation_.count(), 0);
  copy = nullptr;
  invalidation_.await();
}

TEST_F(ServiceCall, TheServicesDeathEndsTheConnectionOnce) {
  service_->keepSilent();
  Done kept;
  CallServiceAsync(
      record_,
      [&](const Proxy& proxy, const Done& done) {
        kept = done;
        proxy->servicePurge(1, info, [](const auto&) { FAIL() << "nobody replied"; });
      },
      invalidation_.handler());
  service_->awaitCalls(1);
  service_->stop();
  invalidation_.await();
  kept();
}

TEST_F(ServiceCall, AConnectionThatTheServiceClosesWithNothingOutstandingEndsOnce) {
  Done kept;
  CallServiceAsync(
      record_,
      [&](const Proxy& proxy, const Done& done) {
        kept = done;
        proxy->servicePing([&] { replied_(); });
      },
      invalidation_.handler());
  replied_.wait();
  service_->hangUp();
  invalidation_.await();
}

TEST_F(ServiceCall, ACallThatTheServiceDoesNotKnowEndsTheConnection) {
  const auto empty = xpc::Listener::anonymousListener();
  empty->setConnectionHandler(
      [](const std::shared_ptr<xpc::Connection>& connection) { connection->resume(); });
  empty->resume();
  record_->setEndpoint(empty->takeEndpoint());
  Done kept;
  CallServiceAsync(
      record_,
      [&](const Proxy& proxy, const Done& done) {
        kept = done;
        proxy->servicePurge(1, info, [](const auto&) { FAIL() << "nobody replied"; });
      },
      invalidation_.handler());
  invalidation_.await();
}

TEST_F(ServiceCall, AConnectionThatCannotBeOpenedCallsTheRequestHandlerAndIsThenInvalidated) {
  service_->stop();
  bool requested = false;
  CallServiceAsync(
      record_,
      [&](const Proxy& proxy, const Done& done) {
        requested = true;
        proxy->servicePurge(1, info, [done](const auto&) { FAIL() << "nobody replied"; });
      },
      invalidation_.handler());
  EXPECT_TRUE(requested);
  invalidation_.await();
}

TEST_F(ServiceCall, TheInvalidationHandlerWaitsForTheRequestHandler) {
  CallServiceAsync(
      record_,
      [&](const Proxy& proxy, const Done& done) {
        proxy->servicePing([&] { replied_(); });
        replied_.wait();
        done();
        service_->awaitHangUps(1);
        EXPECT_EQ(invalidation_.count(), 0);
      },
      invalidation_.handler());
  invalidation_.await();
}

TEST_F(ServiceCall, TheInvalidationHandlerRunsAfterTheReplyHandlers) {
  std::atomic<bool> handled{false};
  bool handled_before = false;
  Signal invalidated;
  CallServiceAsync(
      record_,
      [&](const Proxy& proxy, const Done& done) {
        proxy->servicePing([&, done] {
          done();
          handled = true;
        });
      },
      [&] {
        handled_before = handled;
        invalidated();
      });
  invalidated.wait();
  EXPECT_TRUE(handled_before);
}

TEST_F(ServiceCall, WithoutAnInvalidationHandlerACallStillWorks) {
  CallServiceAsync(
      record_, [&](const Proxy& proxy, const Done& done) { proxy->servicePing([&, done] { replied_(); }); },
      Block());
  replied_.wait();
  service_->awaitHangUps(1);
}

TEST_F(ServiceCall, CallServiceDoesTheSame) {
  CallService(
      record_,
      [&](const Proxy& proxy, const Done& done) {
        proxy->servicePeriodic(3, info, [done](const auto&) { done(); });
      },
      invalidation_.handler());
  invalidation_.await();
  EXPECT_EQ(service_->calls().at(0).urgency, 3);
}

TEST_F(ServiceCall, ManyCallsAtOnceEachEndOnce) {
  constexpr int count = 50;
  std::vector<std::unique_ptr<Invalidation>> all;
  for (int i = 0; i < count; ++i) {
    all.push_back(std::make_unique<Invalidation>());
    CallServiceAsync(
        record_,
        [&](const Proxy& proxy, const Done& done) {
          proxy->servicePurgeable(1, info, [done](const auto&) { done(); });
        },
        all.back()->handler());
  }
  for (const auto& each : all) each->await();
  EXPECT_EQ(service_->calls().size(), static_cast<std::size_t>(count));
}

/// A service that has no endpoint: it was declared by a descriptor.
class DeclaredServiceCall : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directory(directory_ / "services"); }
  void TearDown() override { service_->stop(); }
  void ping(const std::string& ID) {
    CallServiceAsync(
        std::make_shared<KVService>(ID),
        [&](const Proxy& proxy, const Done& done) { proxy->servicePing([this, done] { replied_(); }); },
        invalidation_.handler());
    invalidation_.await();
  }

  const test::TemporaryDirectory directory_;
  const ScopedEnvironment runtime_{"RUNTIME_DIRECTORY", directory_.path()};
  const std::shared_ptr<FakeService> service_ = FakeService::make();
  Invalidation invalidation_;
  Signal replied_;
};

TEST_F(DeclaredServiceCall, GoesToTheSocketOfTheServicesID) {
  service_->answer([](const FakeService::Call& call) { return std::optional(call.info); });
  service_->listenOn(directory_ / "services/com.example.cache");
  ping("com.example.cache");
  EXPECT_TRUE(replied_.given());
}

TEST_F(DeclaredServiceCall, FailsWhenNobodyListens) {
  ping("com.example.cache");
  EXPECT_FALSE(replied_.given());
}

TEST_F(DeclaredServiceCall, AnIDThatIsNoFileNameNeverBecomesAPath) {
  service_->answer([](const FakeService::Call& call) { return std::optional(call.info); });
  service_->listenOn(directory_ / "outside");
  ping("../outside");
  EXPECT_FALSE(replied_.given());
  EXPECT_EQ(service_->connectionsEver(), 0U);
}

}  // namespace
}  // namespace kelvane::tests
