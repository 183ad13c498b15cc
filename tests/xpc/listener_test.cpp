#include "platform/xpc/listener.h"

#include <arpa/inet.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <cstring>

#include "platform/dispatch/executor.h"
#include "platform/dispatch/manual_clock.h"
#include "platform/xpc/launch.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/xpc/descriptors.h"
#include "tests/xpc/echo_server.h"
#include "tests/xpc/run_program.h"

namespace kelvane::tests {
namespace {

constexpr std::uint64_t millisecond = 1'000'000;

/// No descriptor can be opened while it lives.
class NoDescriptors {
 public:
  NoDescriptors() {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    const int lowest_free = ::dup(0);
    ::close(lowest_free);
    rlimit none = before_;
    none.rlim_cur = static_cast<rlim_t>(lowest_free);
    ::setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  rlimit before_{};
};

class ListenerResources : public OverBothDoors {};
INSTANTIATE_TEST_SUITE_P(, ListenerResources, testing::Values(Door::path, Door::endpoint), nameOf);

TEST_P(ListenerResources, AThousandConnectionsLeaveNoDescriptorNoSourceAndNoTimerBehind) {
  EchoServer server(GetParam());
  server.expectOthersAreServed();
  const std::size_t descriptors = openDescriptors();
  const DispatchStatistics before = dispatch_statistics();
  for (int round = 0; round < 100; ++round) {
    std::vector<RawPeer> peers;
    peers.reserve(10);
    for (int i = 0; i < 10; ++i) peers.push_back(server.rawPeer());
    for (std::size_t i = 0; i < peers.size(); ++i) {
      if (i % 3 == 0) peers[i].handshake();
      if (i % 3 == 0) peers[i].send(echoCall(1, 8).bytes().substr(0, 20 + 20 * i));
      if (i % 3 == 1) peers[i].send("nonsense\r\n");
    }
    peers.clear();
    for (int i = 0; i < 10; ++i) server.awaitAnEnd();
  }
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_EQ(dispatch_statistics().event_sources, before.event_sources);
  EXPECT_EQ(dispatch_statistics().timers, before.timers);
  server.expectOthersAreServed();
}

/// A listener that has not been resumed accepts no connection, so a peer that connects has to wait.
TEST(Listener, IsNotPausedWhileSomebodyWaitsToBeAccepted) {
  const test::TemporaryDirectory directory;
  std::string reason;
  const auto listener = xpc::Listener::initWithSocketPath(directory / "socket", 0600, reason);
  ASSERT_NE(listener, nullptr) << reason;
  FileDescriptor waiting(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, (directory / "socket").c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::connect(waiting.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_FALSE(listener->pauseIfNobodyWaits());
  EXPECT_FALSE(listener->pauseIfNobodyWaits());
}

TEST(Listener, PausesWithoutDescriptorsAndGoesOnWhenThereAreSome) {
  ManualClock clock;
  EchoServer server(Door::path);
  const auto patient = server.connection();
  FileDescriptor waiting(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, server.path().data(), server.path().size());
  patient->resume();
  ASSERT_TRUE(ask(patient, {}).reply);
  {
    const NoDescriptors none;
    ASSERT_EQ(::connect(waiting.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    clock.awaitWaiterFor(100 * millisecond);
    // Looked at again, and again there are none.
    clock.advance(100 * millisecond);
    clock.awaitWaiterFor(100 * millisecond);
    // Who is connected is served meanwhile.
    EXPECT_TRUE(ask(patient, {}).reply);
  }
  clock.advance(100 * millisecond);
  RawPeer peer(std::move(waiting));
  peer.handshake();
  peer.send(echoCall(1, 8).bytes());
  EXPECT_TRUE(peer.receive());
  patient->invalidate();
  server.expectOthersAreServed();
}

TEST(Listener, ARefusedPeerIsClosedBeforeAByteIsRead) {
  const test::TemporaryDirectory folder;
  const std::string path = folder / "refusing.sock";
  std::string reason;
  const auto listener = xpc::Listener::initWithSocketPath(path, 0600, reason);
  ASSERT_TRUE(listener) << reason;
  std::atomic<int> configured{0};
  std::atomic<bool> recognised{false};
  listener->setAcceptHandler([&](const xpc::PeerCredentials& peer) {
    recognised = peer.pid == ::getpid() && peer.uid == ::getuid();
    return false;
  });
  listener->setConnectionHandler([&](const auto&) { ++configured; });
  RawPeer peer(path);
  peer.send("anything at all");
  listener->resume();
  peer.awaitEnd();
  EXPECT_TRUE(recognised);
  EXPECT_EQ(configured, 0);
}

TEST(Listener, AUserHasAsManyConnectionsAsTheAccountAllowsAndNoMore) {
  const test::TemporaryDirectory folder;
  ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
  const std::string path = folder / "capped.sock";
  std::string reason;
  const auto listener = xpc::Listener::initWithSocketPath(path, 0666, reason);
  ASSERT_TRUE(listener) << reason;
  const auto echo = std::make_shared<Echo>();
  wire::Limits limits = wire::ordinaryLimits();
  limits.at(static_cast<std::size_t>(wire::Resource::connections)) = 3;
  wire::Accounts accounts(limits, limits);
  std::atomic<int> refused{0};
  listener->setAccounts(accounts);
  listener->setRefusalHandler([&](const xpc::PeerCredentials&) { ++refused; });
  listener->setConnectionHandler([&](const std::shared_ptr<xpc::Connection>& accepted) {
    accepted->setExportedObject<EchoProtocol>(echo);
    accepted->resume();
  });
  listener->resume();
  // Counts the connections on which the handshake is answered; then gives one back until it has another.
  const std::string script = R"(
import os, socket, sys
def open_one():
    s = socket.socket(socket.AF_UNIX)
    s.connect(sys.argv[1])
    try:
        s.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
        return s if s.recv(100).startswith(b"OK ") else None
    except OSError:
        return None
opened = [s for s in (open_one() for _ in range(6)) if s]
print(len(opened), end=" ")
opened.pop().close()
while not open_one():
    pass
print("again", end="")
)";
  const std::string as_nobody =
      ::getuid() == 0 ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : std::string();
  const ProgramResult result = runProgram(as_nobody + "/usr/bin/python3 -c " + quoted(script) + " " + path);
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_EQ(result.output, "3 again");
  EXPECT_GE(refused, 3);
  listener->invalidate();
}

TEST(Listener, TheSocketHasTheModeAskedForAndGoesWithTheListener) {
  const test::TemporaryDirectory folder;
  std::string reason;
  const auto listener = xpc::Listener::initWithSocketPath(folder / "s", 0640, reason);
  ASSERT_TRUE(listener) << reason;
  struct stat status {};
  ASSERT_EQ(::stat((folder / "s").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_FALSE(xpc::Listener::initWithSocketPath(folder / "s", 0600, reason));
  EXPECT_EQ(reason, "another process listens there");
  listener->invalidate();
  EXPECT_NE(::stat((folder / "s").c_str(), &status), 0);
}

TEST(Listener, ADeadSocketIsReplacedAndAFileIsNot) {
  const test::TemporaryDirectory folder;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string dead = folder / "dead";
  std::memcpy(address.sun_path, dead.data(), dead.size());
  {
    const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  std::string reason;
  EXPECT_TRUE(xpc::Listener::initWithSocketPath(dead, 0600, reason)) << reason;
  folder.write("file", "precious");
  EXPECT_FALSE(xpc::Listener::initWithSocketPath(folder / "file", 0600, reason));
  EXPECT_EQ(std::filesystem::file_size(folder / "file"), 8U);
  EXPECT_FALSE(xpc::Listener::initWithSocketPath(std::string(200, 'x'), 0600, reason));
  EXPECT_FALSE(xpc::Listener::initWithSocketPath("", 0600, reason));
}

TEST(Listener, ASocketThatWasHandedOverBlockingDoesNotBlockIt) {
  const test::TemporaryDirectory folder;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = folder / "handed-over";
  std::memcpy(address.sun_path, path.data(), path.size());
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(socket.get(), 5), 0);
  const auto listener = xpc::Listener::initWithListeningSocket(std::move(socket));
  ASSERT_TRUE(listener);
  const Signal accepted;
  listener->setConnectionHandler([&](const auto&) { accepted(); });
  listener->resume();
  const RawPeer peer(path);
  accepted.wait();
  listener->invalidate();  // would wait for the thread that accepts
}

TEST(Listener, DescriptorsForAnInterfaceThatTakesNoneEndTheConnectionAndAreClosed) {
  const test::TemporaryDirectory folder;
  std::string reason;
  const auto listener = xpc::serveLaunchSocket(folder / "launch.sock", reason);
  ASSERT_TRUE(listener) << reason;
  const FileDescriptor file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  RawMessage ping;
  ping.interface = "org.freedesktop.DBus.Peer";
  ping.member = "Ping";
  std::size_t before = 0;
  for (int round = 0; round < 20; ++round) {
    RawPeer peer(folder / "launch.sock");
    peer.handshake();
    peer.send(ping.bytes());
    ASSERT_TRUE(peer.receive());
    peer.send(ping.bytes(), {file.get(), file.get(), file.get()});
    peer.awaitEnd();
    if (round == 0) before = openDescriptors();
  }
  // The last end may not be over on the other side: two descriptors there.
  EXPECT_LE(openDescriptors(), before + 2);
  listener->invalidate();
}

TEST(Listener, TakesNothingButAListeningLocalStreamSocket) {
  EXPECT_FALSE(xpc::Listener::initWithListeningSocket(FileDescriptor()));
  EXPECT_FALSE(xpc::Listener::initWithListeningSocket(
      FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))));
  FileDescriptor remote(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in loopback{};
  loopback.sin_family = AF_INET;
  loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(remote.get(), reinterpret_cast<const sockaddr*>(&loopback), sizeof loopback), 0);
  ASSERT_EQ(::listen(remote.get(), 1), 0);
  EXPECT_FALSE(xpc::Listener::initWithListeningSocket(std::move(remote)));
}

}  // namespace
}  // namespace kelvane::tests
