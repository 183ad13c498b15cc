#include "kelvane/service.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "client/handler_calls.h"
#include "tests/client/daemon_process.h"
#include "tests/client/events.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/scoped_environment.h"

namespace kelvane::tests {
namespace {

using client::Cancellation;
using client::Purgeable;
using client::Request;
using client::Service;
using client::ServiceOptions;
using client::ServiceState;
using test::TemporaryDirectory;

const char* nameOf(ServiceState state) {
  switch (state) {
    case ServiceState::waiting:
      return "waiting";
    case ServiceState::registered:
      return "registered";
    case ServiceState::refused:
      return "refused";
    case ServiceState::serving:
      return "serving";
  }
  return "?";
}

/// Notes each call, and answers a purge with half of what it was asked. At urgency 4 it is busy until
/// cancelled.
class Handler : public client::ServiceHandler {
 public:
  std::optional<Purgeable> purgeable(const Request& request, const Cancellation& cancellation) override {
    if (request.urgency == 4) {
      events.note("asked");
      awaitEnd(cancellation);
    }
    if (request.urgency == 1) return std::nullopt;
    return Purgeable{static_cast<std::uint64_t>(request.urgency) * 100};
  }
  std::uint64_t purge(const Request& request, const Cancellation& cancellation) override {
    events.note("purge");
    if (request.urgency == 4) {
      awaitEnd(cancellation);
      return 1;
    }
    if (request.urgency == 3) events.await("go on");
    return request.amount / 2;
  }
  std::uint64_t periodic(const Request& request) override {
    return static_cast<std::uint64_t>(request.urgency);
  }
  void cancelPurge() override { events.note("cancelPurge"); }
  void notify(const std::string& name, const Value& value) override {
    events.note("notify " + name + " " + value.description());
  }
  void stateChanged(ServiceState state, const std::string& reason) override {
    events.note(nameOf(state));
    events.note(std::string(nameOf(state)) + ": " + reason);
  }

  Events events;

 private:
  void awaitEnd(const Cancellation& cancellation) {
    while (!cancellation.isCancelled()) std::this_thread::yield();
    events.note("stopped");
  }
};

class AService : public testing::Test {
 protected:
  ServiceOptions options(const std::string& id = "com.example.one") const {
    ServiceOptions options;
    options.id = id;
    options.all_volumes = true;
    options.daemon_socket = socket_;
    return options;
  }
  std::unique_ptr<Service> start(const ServiceOptions& options) {
    auto service = Service::start(handler_, options);
    if (!service) throw std::runtime_error(service.error().reason);
    return std::move(*service);
  }

  const TemporaryDirectory directory_;
  const std::string socket_ = directory_ / "kelvane.sock";
  Handler handler_;
};

TEST_F(AService, ChecksInAndIsPurged) {
  DaemonProcess daemon(socket_);
  const auto service = start(options());
  handler_.events.await("registered");
  EXPECT_EQ(daemon.hear(), "checked-in com.example.one PURGE");
  EXPECT_EQ(daemon.ask("purge com.example.one 2 1000"), "500");
  EXPECT_EQ(daemon.ask("purgeable com.example.one 3"), "300");
  EXPECT_EQ(daemon.ask("purgeable com.example.one 1"), "nothing");
  EXPECT_EQ(daemon.ask("periodic com.example.one"), "3");
}

TEST_F(AService, SaysAtCheckInWhatItDoes) {
  DaemonProcess daemon(socket_);
  ServiceOptions periodic = options();
  periodic.purges = false;
  periodic.periodic = true;
  const auto service = start(periodic);
  EXPECT_EQ(daemon.hear(), "checked-in com.example.one PERIODIC");
}

TEST_F(AService, ThatStartsBeforeTheDaemonChecksInOnceItIsThere) {
  const auto service = start(options());
  handler_.events.await("waiting");
  DaemonProcess daemon(socket_);
  daemon.await("checked-in com.example.one PURGE");
}

TEST_F(AService, ChecksInAlsoWhenTheFolderOfTheSocketIsMadeLater) {
  ServiceOptions later = options();
  later.daemon_socket = directory_ / "run/kelvane/kelvane.sock";
  const auto service = start(later);
  handler_.events.await("waiting");
  std::filesystem::create_directories(directory_ / "run/kelvane");
  DaemonProcess daemon(later.daemon_socket);
  daemon.await("checked-in com.example.one PURGE");
}

TEST_F(AService, ChecksInAgainWithinASecondWhenTheDaemonDiedAndCameBack) {
  DaemonProcess first(socket_);
  const auto service = start(options());
  handler_.events.await("registered");
  first.end(SIGKILL);
  handler_.events.await("waiting");
  DaemonProcess second(socket_);
  const auto back = std::chrono::steady_clock::now();
  second.await("checked-in com.example.one PURGE");
  EXPECT_LT(std::chrono::steady_clock::now() - back, std::chrono::seconds(1));
  handler_.events.await("registered");
  EXPECT_EQ(second.ask("purge com.example.one 2 10"), "5");
}

TEST_F(AService, ChecksInAgainWhenTheDaemonDropsIt) {
  DaemonProcess daemon(socket_);
  const auto service = start(options());
  handler_.events.await("registered");
  daemon.tell("drop com.example.one");
  handler_.events.await("waiting: the daemon has dropped the service");
  handler_.events.await("registered");
  EXPECT_EQ(daemon.ask("ping com.example.one"), "ok");
}

TEST_F(AService, WaitsWhileAnotherHoldsItsIDAndTakesOverWhenThatEnds) {
  DaemonProcess daemon(socket_);
  Handler other;
  auto first = Service::start(other, options());
  other.events.await("registered");
  const auto service = start(options());
  handler_.events.await("waiting");
  *first = nullptr;
  handler_.events.await("registered");
  EXPECT_EQ(daemon.ask("purge com.example.one 2 10"), "5");
  EXPECT_TRUE(handler_.events.has("purge"));
}

TEST_F(AService, WithTheIDOfADeclaredOneIsRefused) {
  DaemonProcess daemon(socket_);
  const auto service = start(options("declared.one"));
  handler_.events.await("refused: \"declared.one\" is the ID of a declared service");
  EXPECT_FALSE(handler_.events.has("registered"));
}

TEST_F(AService, ThatGetsNoAnswerToItsCheckInIsRefused) {
  DaemonProcess daemon(socket_);
  const auto service = start(options("unentitled.one"));
  handler_.events.await("refused: this process may not be a service: no SERVICE_ENTITLEMENT");
}

TEST_F(AService, ThatTheDaemonDoesNotSpeakToIsRefused) {
  DaemonProcess daemon(socket_, {"accept-nobody"});
  const auto service = start(options());
  handler_.events.await(
      "refused: the daemon does not accept connections from this process: no CLIENT_ENTITLEMENT");
}

TEST_F(AService, ThatIsRefusedTriesAgainWithTheNextDaemon) {
  const auto service = [&] {
    DaemonProcess refusing(socket_, {"accept-nobody"});
    auto refused = start(options());
    handler_.events.await("refused");
    return refused;
  }();
  DaemonProcess daemon(socket_);
  daemon.await("checked-in com.example.one PURGE");
}

TEST_F(AService, AnswersPingsAndQuestionsWhileItPurges) {
  DaemonProcess daemon(socket_);
  const auto service = start(options());
  handler_.events.await("registered");
  daemon.tell("purge com.example.one 3 1000");
  handler_.events.await("purge");
  EXPECT_EQ(daemon.ask("ping com.example.one"), "ok");
  EXPECT_EQ(daemon.ask("purgeable com.example.one 2"), "200");
  handler_.events.note("go on");
  daemon.await("purge com.example.one 3 1000: 500");
}

TEST_F(AService, GetsTheNotificationsThatItAskedFor) {
  DaemonProcess daemon(socket_);
  ServiceOptions listening = options();
  listening.notifications = {"KELVANE_CACHE_ENABLED"};
  const auto service = start(listening);
  handler_.events.await("registered");
  EXPECT_EQ(daemon.ask("notify com.example.one KELVANE_CACHE_ENABLED"), "ok");
  handler_.events.await("notify KELVANE_CACHE_ENABLED " + Value(true).description());
}

TEST_F(AService, StopsPurgingWhenTheDaemonCancels) {
  DaemonProcess daemon(socket_);
  const auto service = start(options());
  handler_.events.await("registered");
  daemon.tell("purge com.example.one 4 1000");
  handler_.events.await("purge");
  daemon.tell("cancel com.example.one");
  handler_.events.await("stopped");
  handler_.events.await("cancelPurge");
  daemon.await("purge com.example.one 4 1000: 1");
}

TEST_F(AService, StopsPurgingWhenTheDaemonHangsUp) {
  DaemonProcess daemon(socket_);
  const auto service = start(options());
  handler_.events.await("registered");
  daemon.tell("hang-up-purge com.example.one 4 1000");
  handler_.events.await("purge");
  handler_.events.await("stopped");
}

TEST_F(AService, StopsPurgingWhenTheDaemonDies) {
  DaemonProcess daemon(socket_);
  const auto service = start(options());
  handler_.events.await("registered");
  daemon.tell("purge com.example.one 4 1000");
  handler_.events.await("purge");
  daemon.end(SIGKILL);
  handler_.events.await("stopped");
}

TEST_F(AService, LooksNoFurtherWhenTheDaemonThatAskedDies) {
  DaemonProcess daemon(socket_);
  const auto service = start(options());
  handler_.events.await("registered");
  daemon.tell("purgeable com.example.one 4");
  handler_.events.await("asked");
  daemon.end(SIGKILL);
  handler_.events.await("stopped");
}

// --- its end ---

TEST_F(AService, LooksNoFurtherWhenItIsDestroyed) {
  DaemonProcess daemon(socket_);
  auto service = start(options());
  handler_.events.await("registered");
  daemon.tell("purgeable com.example.one 4");
  handler_.events.await("asked");
  service = nullptr;
  EXPECT_TRUE(handler_.events.has("stopped"));
}

TEST_F(AService, GetsNoCallOnceItIsDestroyed) {
  DaemonProcess daemon(socket_);
  auto service = start(options());
  handler_.events.await("registered");
  daemon.tell("purge com.example.one 4 1000");  // runs when the service is destroyed
  handler_.events.await("purge");
  daemon.tell("purge com.example.one 2 1000");  // waits behind it, or comes later
  service = nullptr;
  handler_.events.await("stopped");
  const std::size_t before = handler_.events.count();
  // Both have been given up on by now: what would still call the handler would have done so.
  EXPECT_EQ(daemon.ask("ping com.example.one"), "failed");
  EXPECT_EQ(handler_.events.count(), before);
  EXPECT_FALSE(handler_.events.has("purge"));
}

TEST_F(AService, CanBeDestroyedWhileItWaitsForTheDaemon) {
  auto service = start(options());
  service = nullptr;
  DaemonProcess daemon(socket_);
  EXPECT_FALSE(handler_.events.has("registered"));
}

using AServiceDeathTest = AService;

TEST_F(AServiceDeathTest, MayNotBeDestroyedByItsHandler) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  const ScopedEnvironment inside("TMPDIR", directory_.path());  // what the dying leaves
  struct Destroying final : Handler {
    void stateChanged(ServiceState, const std::string&) override {
      events.await("stored");
      service = nullptr;
    }
    std::unique_ptr<Service> service;
  };
  const auto run = [&] {
    Destroying handler;
    handler.service = std::move(*Service::start(handler, options()));
    handler.events.note("stored");
    handler.events.await("never");
  };
  EXPECT_DEATH(run(), "com.orvel.kelvane_service_event");
}

// --- who may call ---

TEST_F(AService, IsNotCalledByAUserWhoIsNotAmongItsCallers) {
  DaemonProcess daemon(socket_);
  ServiceOptions guarded = options();
  guarded.callers = {::geteuid() + 1};
  const auto service = start(guarded);
  handler_.events.await("waiting");  // the daemon's own connection is closed as well, so it drops the service
  EXPECT_FALSE(handler_.events.has("registered"));
  EXPECT_EQ(daemon.ask("purge com.example.one 2 10"), "failed");
  EXPECT_FALSE(handler_.events.has("purge"));
}

TEST_F(AService, IsCalledByAUserAmongItsCallers) {
  DaemonProcess daemon(socket_);
  ServiceOptions guarded = options();
  guarded.callers = {::geteuid() + 1, ::geteuid()};
  const auto service = start(guarded);
  handler_.events.await("registered");
}

TEST(WhoMayCall, IsRootAndTheUserWhoHoldsTheDaemonsSocketWhenNobodySaysWho) {
  EXPECT_TRUE(client::mayCall(0, std::nullopt, std::nullopt));
  EXPECT_TRUE(client::mayCall(7, std::nullopt, 7));
  EXPECT_FALSE(client::mayCall(7, std::nullopt, 8));
  EXPECT_FALSE(client::mayCall(7, std::nullopt, std::nullopt));
}

TEST(WhoMayCall, IsExactlyTheCallersWhenTheyAreSaid) {
  EXPECT_TRUE(client::mayCall(7, std::vector<uid_t>{6, 7}, std::nullopt));
  EXPECT_FALSE(client::mayCall(0, std::vector<uid_t>{6, 7}, std::nullopt));
  EXPECT_FALSE(client::mayCall(8, std::vector<uid_t>{6, 7}, 8));
  EXPECT_FALSE(client::mayCall(0, std::vector<uid_t>{}, 0));
}

// --- declared services ---

TEST_F(AService, ThatIsDeclaredServesItsSocketAndDoesNotCheckIn) {
  DaemonProcess daemon(socket_);
  ServiceOptions declared = options();
  declared.socket_path = directory_ / "com.example.one";
  const auto service = start(declared);
  handler_.events.await("serving");
  EXPECT_EQ(daemon.ask("serve " + declared.socket_path), "ok");
  EXPECT_EQ(daemon.ask("purge - 2 1000"), "500");
}

TEST_F(AService, ThatIsDeclaredLetsInTheUserWhoHoldsTheDaemonsSocket) {
  ServiceOptions declared = options();
  declared.socket_path = directory_ / "com.example.one";
  const auto service = start(declared);
  DaemonProcess daemon(socket_);  // comes to be after the service
  EXPECT_EQ(daemon.ask("serve " + declared.socket_path), "ok");
  EXPECT_EQ(daemon.ask("ping -"), "ok");
}

TEST_F(AService, ThatIsDeclaredClosesOnACallerWhoIsNotTheDaemon) {
  DaemonProcess daemon(socket_);
  ServiceOptions declared = options();
  declared.socket_path = directory_ / "com.example.one";
  declared.callers = {::geteuid() + 1};
  const auto service = start(declared);
  EXPECT_EQ(daemon.ask("serve " + declared.socket_path), "ok");
  EXPECT_EQ(daemon.ask("purge - 2 1000"), "failed");
  EXPECT_FALSE(handler_.events.has("purge"));
}

TEST_F(AService, ThatCannotMakeItsSocketSaysWhy) {
  ServiceOptions declared = options();
  declared.socket_path = directory_ / "missing/com.example.one";
  const auto service = Service::start(handler_, declared);
  ASSERT_FALSE(service);
  EXPECT_EQ(service.error().kind, client::Failure::badRequest);
  EXPECT_EQ(service.error().reason, std::string("the service's socket: ") + std::strerror(ENOENT));
}

TEST_F(AService, ThatWasHandedNoSocketSaysSo) {
  ServiceOptions declared = options();
  declared.passed_socket = "cache";
  const auto service = Service::start(handler_, declared);
  ASSERT_FALSE(service);
  EXPECT_EQ(service.error().reason, "the service's socket: no listening socket was handed over as \"cache\"");
}

TEST_F(AService, WithoutAnIDCannotBe) {
  const auto service = Service::start(handler_, options(""));
  ASSERT_FALSE(service);
  EXPECT_EQ(service.error().reason, "a service needs an ID");
}

}  // namespace
}  // namespace kelvane::tests
