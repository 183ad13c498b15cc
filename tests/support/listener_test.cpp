#include "support/listener.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>

#include "common/keys.h"
#include "platform/dispatch/manual_clock.h"
#include "support/entitlements.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/support/fake_client_object.h"
#include "tests/support/log_capture.h"
#include "tests/support/scoped_environment.h"
#include "tests/support/signal.h"

namespace kelvane::tests {
namespace {

class DaemonListener : public testing::Test {
 protected:
  void TearDown() override {
    if (listener_ != nullptr) listener_->invalidate();
    loadEntitlementGrants({});
  }

  /// Grants this user the name, and nobody anything else.
  void grant(const std::string& name) const {
    directory_.write("entitlements.d/test.plist",
                     "<plist version=\"1.0\"><dict><key>user</key><integer>" + std::to_string(::getuid()) +
                         "</integer><key>com.orvel.private.Kelvane</key><array><string>" + name +
                         "</string></array></dict></plist>");
    ::chmod((directory_ / "entitlements.d/test.plist").c_str(), 0644);
    ::chmod((directory_ / "entitlements.d").c_str(), 0755);
    loadEntitlementGrants({directory_ / "entitlements.d"});
  }
  bool listen() {
    listener_ = KelvaneListener::daemonListenerWithExportedObject(object_);
    listener_->addRequiredEntitlement(CLIENT_ENTITLEMENT);
    return listener_->resume();
  }
  /// What the object answers a client, or nothing when the client gets no answer.
  std::optional<Dictionary> ask(const Dictionary& info) const {
    std::optional<Dictionary> answer;
    const Signal over;
    const auto connection = xpc::Connection::initWithSocketPath(socket_);
    connection->resume();
    connection->remoteObjectProxyWithErrorHandler<KelvaneClientProtocol>([&](const xpc::Error&) { over(); })
        ->clientPurge(info, [&](std::optional<Dictionary> reply) {
          answer = std::move(reply);
          over();
        });
    over.wait();
    connection->invalidate();
    return answer;
  }

  const test::TemporaryDirectory directory_;
  const ScopedEnvironment runtime_{"RUNTIME_DIRECTORY", directory_.path()};
  const std::string socket_ = directory_ / "kelvane.sock";
  const std::shared_ptr<FakeClientObject> object_ = std::make_shared<FakeClientObject>();
  std::shared_ptr<KelvaneListener> listener_;
};

const Dictionary info{{KELVANE_VOLUME, "/"}};

TEST_F(DaemonListener, AnEntitledClientReachesTheExportedObject) {
  grant(CLIENT_ENTITLEMENT);
  ASSERT_TRUE(listen());
  EXPECT_EQ(ask(info), info);
  EXPECT_EQ(object_->calls, 1);
}

TEST_F(DaemonListener, AClientWithoutTheRequiredEntitlementIsRefused) {
  const LogCapture log;
  grant(PURGE_ENTITLEMENT);
  ASSERT_TRUE(listen());
  EXPECT_FALSE(ask(info));
  EXPECT_EQ(object_->calls, 0);
  EXPECT_TRUE(log.contains(5, "refusing process"));
}

TEST_F(DaemonListener, AClientNeedsEveryRequiredEntitlement) {
  grant(CLIENT_ENTITLEMENT);
  listener_ = KelvaneListener::daemonListenerWithExportedObject(object_);
  listener_->addRequiredEntitlement(CLIENT_ENTITLEMENT);
  listener_->addRequiredEntitlement(PURGE_ENTITLEMENT);
  ASSERT_TRUE(listener_->resume());
  EXPECT_FALSE(ask(info));
}

wire::Limits withConnections(std::uint64_t most) {
  wire::Limits limits = wire::ordinaryLimits();
  limits.at(static_cast<std::size_t>(wire::Resource::connections)) = most;
  return limits;
}

/// Lets each user have two connections.
class CrowdedListener : public DaemonListener {
 protected:
  void SetUp() override {
    grant(CLIENT_ENTITLEMENT);
    listener_ = KelvaneListener::daemonListenerWithExportedObject(object_);
    listener_->setAccounts(accounts_);
    ASSERT_TRUE(listener_->resume());
  }
  void TearDown() override {
    for (const auto& connection : open_) connection->invalidate();
    DaemonListener::TearDown();
  }
  /// Keeps one connection open that has been accepted.
  void open() {
    const Signal answered;
    open_.push_back(xpc::Connection::initWithSocketPath(socket_));
    open_.back()->resume();
    open_.back()
        ->remoteObjectProxyWithErrorHandler<KelvaneClientProtocol>([&](const xpc::Error& error) {
          ADD_FAILURE() << error.message;
          answered();
        })
        ->clientCancelPurge({}, [&] { answered(); });
    answered.wait();
  }
  static std::string refusal() {
    return "refused a connection of user " + std::to_string(::geteuid()) +
           ": it has 2 open, the most allowed";
  }

  ManualClock clock_;
  const LogCapture log_{3};
  wire::Accounts accounts_{withConnections(2), withConnections(2)};
  std::vector<std::shared_ptr<xpc::Connection>> open_;
};

TEST_F(CrowdedListener, AConnectionAboveItsUsersLimitIsRefusedAndLoggedWithTheUserAndTheLimit) {
  open();
  open();
  EXPECT_FALSE(log_.contains("refused"));
  EXPECT_FALSE(ask(info));
  EXPECT_EQ(object_->calls, 2);
  EXPECT_EQ(log_.count(3, "resume " + refusal()), 1U);
}

TEST_F(CrowdedListener, RefusalsOfAUserAreLoggedOnceInTenSeconds) {
  open();
  open();
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(ask(info));
  EXPECT_EQ(log_.count(refusal()), 1U);
  clock_.advance(9'999'999'999);
  EXPECT_FALSE(ask(info));
  EXPECT_EQ(log_.count(refusal()), 1U);
  clock_.advance(1);
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(ask(info));
  EXPECT_EQ(log_.count(refusal()), 2U);
}

TEST_F(DaemonListener, EveryUserMayConnectToTheSocket) {
  ASSERT_TRUE(listen());
  struct stat status {};
  ASSERT_EQ(::stat(socket_.c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 0777, 0666U);
}

TEST_F(DaemonListener, ASocketThatCannotBeMadeIsLoggedWithPathAndReason) {
  const LogCapture log(3);
  const ScopedEnvironment runtime("RUNTIME_DIRECTORY", directory_ / "missing");
  EXPECT_FALSE(listen());
  EXPECT_TRUE(log.contains(3, "unable to listen on " + (directory_ / "missing/kelvane.sock: ")));
}

TEST_F(DaemonListener, AfterInvalidateNobodyIsAccepted) {
  grant(CLIENT_ENTITLEMENT);
  ASSERT_TRUE(listen());
  listener_->invalidate();
  EXPECT_FALSE(ask(info));
}

/// A program to which a listening socket was handed over, as a service manager does it.
class ActivatedProgram {
 public:
  explicit ActivatedProgram(int socket) : process_(::fork()) {
    if (process_ != 0) return;
    ::dup2(socket, 3);
    ::execl("/bin/sh", "sh", "-c", "LISTEN_PID=$$ LISTEN_FDS=1 LISTEN_FDNAMES=kelvane.socket exec \"$0\"",
            ACTIVATED_LISTENER, nullptr);
    ::_exit(127);
  }
  ~ActivatedProgram() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  ActivatedProgram(const ActivatedProgram&) = delete;
  ActivatedProgram& operator=(const ActivatedProgram&) = delete;
  [[nodiscard]] pid_t id() const { return process_; }

 private:
  const pid_t process_;
};

/// A listening socket that survives an execution.
FileDescriptor inheritableSocketAt(const std::string& path) {
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::copy(path.begin(), path.end(), std::begin(address.sun_path));
  EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(::listen(socket.get(), 5), 0);
  return socket;
}

TEST_F(DaemonListener, TheSocketThatSocketActivationHandsOverIsUsed) {
  const FileDescriptor socket = inheritableSocketAt(socket_);
  const ScopedEnvironment nowhere("RUNTIME_DIRECTORY", "/nonexistent");
  const ActivatedProgram program(socket.get());
  EXPECT_EQ(ask(info), info);
}

// A service lets in root and whoever holds the daemon's socket. The daemon is not root.
TEST_F(DaemonListener, WhoConnectsToASocketThatWasHandedOverSeesTheDaemonAndNotItsServiceManager) {
  const FileDescriptor socket = inheritableSocketAt(socket_);
  const ScopedEnvironment nowhere("RUNTIME_DIRECTORY", "/nonexistent");
  const ActivatedProgram program(socket.get());
  ASSERT_EQ(ask(info), info);  // it has taken the socket over
  const auto connection = xpc::Connection::initWithSocketPath(socket_);
  ASSERT_TRUE(connection->credentials());
  EXPECT_EQ(connection->credentials()->pid, program.id());
  connection->invalidate();
}

}  // namespace
}  // namespace kelvane::tests
