// When a service that found no daemon retries. The test moves the clock, so no pause ends by itself.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <array>
#include <cstring>
#include <filesystem>

#include "client/socket_watcher.h"
#include "kelvane/service.h"
#include "platform/dispatch/manual_clock.h"
#include "platform/foundation/file_descriptor.h"
#include "tests/client/events.h"
#include "tests/foundation/temporary_directory.h"

namespace kelvane::tests {
namespace {

using client::Service;

constexpr std::uint64_t millisecond = 1'000'000;
constexpr std::uint64_t first_pause = 10 * millisecond;
constexpr std::uint64_t long_pause = 20'480 * millisecond;

class Indifferent final : public client::ServiceHandler {
 public:
  std::optional<client::Purgeable> purgeable(const client::Request& /*request*/,
                                             const client::Cancellation& /*cancellation*/) override {
    return std::nullopt;
  }
  std::uint64_t purge(const client::Request& /*request*/,
                      const client::Cancellation& /*cancellation*/) override {
    return 0;
  }
};

/// A daemon's socket, without the daemon.
class Socket {
 public:
  explicit Socket(const std::string& path)
      : descriptor_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(descriptor_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }

  void listen() const { EXPECT_EQ(::listen(descriptor_.get(), 1), 0); }
  /// Empty when nobody connects in time; a negative time means no limit.
  [[nodiscard]] FileDescriptor accept(int milliseconds) const {
    pollfd polled{descriptor_.get(), POLLIN, 0};
    if (::poll(&polled, 1, milliseconds) != 1) return {};
    return FileDescriptor(::accept4(descriptor_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }

 private:
  FileDescriptor descriptor_;
};

class ARegistration : public testing::Test {
 protected:
  /// Starts with a socket on which nobody listens, and with pauses that have already grown.
  ARegistration() {
    client::ServiceOptions options;
    options.id = "com.example.one";
    options.all_volumes = true;
    options.daemon_socket = path_;
    service_ = *Service::start(handler_, options);
    for (std::uint64_t pause = first_pause; pause < long_pause; pause *= 2) clock_.advanceToWaiterFor(pause);
    clock_.awaitWaiterFor(long_pause);
  }

  /// The attempt is under way until this is closed.
  [[nodiscard]] FileDescriptor beginAttempt() {
    old_.listen();
    clock_.advance(long_pause);
    return old_.accept(-1);
  }
  /// Replaces the old socket. When this returns, the registration has most likely noticed.
  [[nodiscard]] Socket replaceSocket() const {
    Socket socket(directory_ / "new");
    socket.listen();
    const auto events = std::make_shared<Events>();
    const client::SocketWatcher watcher(path_, [events] { events->note("appeared"); });
    std::filesystem::rename(directory_ / "new", path_);
    events->await("appeared");
    return socket;
  }
  /// Empty if nobody connects while the clock advances by this much in short steps.
  [[nodiscard]] FileDescriptor acceptWithin(std::uint64_t nanoseconds, const Socket& socket) {
    FileDescriptor accepted;
    for (std::uint64_t moved = 0; !accepted && moved < nanoseconds; moved += first_pause) {
      clock_.advance(first_pause);
      accepted = socket.accept(10);
    }
    return accepted;
  }

  const test::TemporaryDirectory directory_;
  const std::string path_ = directory_ / "kelvane.sock";
  const Socket old_{path_};
  ManualClock clock_;
  Indifferent handler_;
  std::unique_ptr<Service> service_;
};

TEST_F(ARegistration, IsMadeAtOnceAtASocketThatAppearsDuringAPause) {
  const Socket fresh = replaceSocket();
  EXPECT_TRUE(fresh.accept(10'000));
  clock_.awaitWaiterFor(first_pause);
}

TEST_F(ARegistration, IsMadeSoonAtASocketThatAppearedDuringAnAttemptThatFails) {
  FileDescriptor attempt = beginAttempt();
  const Socket fresh = replaceSocket();
  attempt.reset();
  EXPECT_TRUE(acceptWithin(long_pause / 4, fresh)) << "it waits as if there were still no daemon";
}

TEST_F(ARegistration, WaitsLongerAgainWhenTheNewSocketIsOfNoUseEither) {
  FileDescriptor attempt = beginAttempt();
  const Socket fresh = replaceSocket();
  attempt.reset();
  int attempts = 0;
  for (int i = 0; i < 30; ++i) {
    if (acceptWithin(first_pause, fresh)) ++attempts;
  }
  EXPECT_GT(attempts, 0);
  EXPECT_LT(attempts, 10) << "pauses of 10, 20, 40 milliseconds, and so on";
}

}  // namespace
}  // namespace kelvane::tests
