// When a service is idle, and how a program can then end without losing a call.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <cstring>
#include <thread>

#include "kelvane/service.h"
#include "platform/foundation/file_descriptor.h"
#include "tests/client/daemon_process.h"
#include "tests/client/events.h"
#include "tests/foundation/temporary_directory.h"

namespace kelvane::tests {
namespace {

using client::Cancellation;
using client::Purgeable;
using client::Request;
using client::Service;
using client::ServiceOptions;

/// A purge lasts until the test releases it.
class Busy final : public client::ServiceHandler {
 public:
  std::optional<Purgeable> purgeable(const Request& /*request*/,
                                     const Cancellation& /*cancellation*/) override {
    return Purgeable{7};
  }
  std::uint64_t purge(const Request& request, const Cancellation& /*cancellation*/) override {
    events.note("purge");
    events.await("go on");
    return request.amount;
  }

  Events events;
};

class AnIdleService : public testing::Test {
 protected:
  void SetUp() override {
    ServiceOptions options;
    options.id = "com.example.one";
    options.all_volumes = true;
    options.daemon_socket = directory_ / "kelvane.sock";
    options.socket_path = socket_;
    service_ = *Service::start(handler_, options);
    daemon_.ask("serve " + socket_);
  }
  [[nodiscard]] bool isIdle() const { return service_->idleSince().has_value(); }
  /// The end of a connection is noticed a moment after it was closed.
  void awaitIdle() const {
    while (!isIdle()) std::this_thread::yield();
  }
  [[nodiscard]] FileDescriptor connected() const {
    FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socket_.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return socket;
  }

  const test::TemporaryDirectory directory_;
  const std::string socket_ = directory_ / "service.sock";
  DaemonProcess daemon_{directory_ / "kelvane.sock"};
  Busy handler_;
  std::unique_ptr<Service> service_;
};

TEST_F(AnIdleService, IsIdleSinceItsStartOrItsLastCall) {
  awaitIdle();
  const auto start = *service_->idleSince();
  EXPECT_EQ(daemon_.ask("purgeable - 2"), "7");
  awaitIdle();
  EXPECT_GT(*service_->idleSince(), start);
  EXPECT_LE(*service_->idleSince(), std::chrono::steady_clock::now());
}

TEST_F(AnIdleService, IsNotIdleWhileACallRunsEvenAfterItsConnectionHasEnded) {
  daemon_.tell("hang-up-purge - 2 50");
  handler_.events.await("purge");
  daemon_.await("hang-up-purge - 2 50: ok");
  EXPECT_FALSE(isIdle());
  EXPECT_FALSE(service_->pauseIfIdle());
  handler_.events.note("go on");
  awaitIdle();
  EXPECT_TRUE(service_->pauseIfIdle());
}

TEST_F(AnIdleService, IsNotIdleWhileASilentConnectionIsOpen) {
  awaitIdle();
  FileDescriptor connection = connected();
  while (isIdle()) std::this_thread::yield();  // until it is accepted
  EXPECT_FALSE(service_->pauseIfIdle());
  connection.reset();
  awaitIdle();
}

TEST_F(AnIdleService, AcceptsNothingWhileItIsPausedAndEverythingAfterwards) {
  awaitIdle();
  ASSERT_TRUE(service_->pauseIfIdle());
  daemon_.tell("purgeable - 2");
  const FileDescriptor connection = connected();  // both wait in the socket, now or soon
  EXPECT_TRUE(service_->pauseIfIdle()) << "it is paused already";
  EXPECT_TRUE(isIdle());
  service_->resume();
  daemon_.await("purgeable - 2: 7");
  EXPECT_FALSE(isIdle());
}

/// A program that polls finds it idle now and then; no call may get lost between the polls.
TEST_F(AnIdleService, LosesNoCallHoweverOftenItIsPaused) {
  std::atomic<bool> done = false;
  std::size_t pauses = 0;
  std::thread pausing([&] {
    while (!done) {
      if (!service_->pauseIfIdle()) continue;
      ++pauses;
      EXPECT_TRUE(isIdle());
      service_->resume();
    }
  });
  for (int i = 0; i < 300; ++i) EXPECT_EQ(daemon_.ask("purgeable - 2"), "7");
  done = true;
  pausing.join();
  EXPECT_GT(pauses, 0U);
}

TEST_F(AnIdleService, IsNeverOneThatIsCheckedIn) {
  ServiceOptions options;
  options.id = "com.example.two";
  options.all_volumes = true;
  options.daemon_socket = directory_ / "kelvane.sock";
  const auto service = *Service::start(handler_, options);
  daemon_.await("checked-in com.example.two PURGE");
  EXPECT_FALSE(service->idleSince());
  EXPECT_FALSE(service->pauseIfIdle());
}

}  // namespace
}  // namespace kelvane::tests
