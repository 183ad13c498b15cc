// Services and clients that misbehave, each in a process or on a socket of its own.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <array>
#include <atomic>
#include <csignal>
#include <cstring>

#include "common/keys.h"
#include "platform/dispatch/group.h"
#include "platform/foundation/file_descriptor.h"
#include "tests/system/daemon.h"

namespace kelvane::tests {
namespace {

FileDescriptor connectRaw(const Daemon& daemon) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, daemon.socket().data(), daemon.socket().size());
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return socket;
}

bool isClosed(const FileDescriptor& socket) {
  std::array<char, 256> buffer{};
  ssize_t length = 0;
  while ((length = ::recv(socket.get(), buffer.data(), buffer.size(), 0)) > 0) {
  }
  return length == 0 || errno == ECONNRESET;
}

TEST(HostilePeers, GarbageInsteadOfTheHandshakeCostsItsOwnConnectionOnly) {
  Daemon daemon;
  Client client(daemon);
  const FileDescriptor garbage = connectRaw(daemon);
  const std::string text = "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n";
  ASSERT_EQ(::send(garbage.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  EXPECT_TRUE(isClosed(garbage));
  EXPECT_TRUE(client.isServed());
}

TEST(HostilePeers, AServiceThatDiesBeforeItAnswersItsPingIsDroppedAndTheRegistryGoesOn) {
  const Folder folder;
  Daemon daemon;
  Process mute(
      {built("service_program"), "mute", "com.example.mute", folder.path(), "--daemon", daemon.socket()});
  ASSERT_TRUE(mute.printed("pinged"));
  mute.signal(SIGKILL);
  mute.wait();
  EXPECT_TRUE(daemon.logged("interruptionHandler ENTRY"));
  Process next(
      {built("service_program"), "deletes", "com.example.next", folder.path(), "--daemon", daemon.socket()});
  EXPECT_TRUE(next.printed("registered")) << daemon.process().output();
}

TEST(HostilePeers, WhileAServiceDoesNotAnswerItsPingTheRegistryWaits) {
  const Folder folder;
  Daemon daemon;
  Process mute(
      {built("service_program"), "mute", "com.example.mute", folder.path(), "--daemon", daemon.socket()});
  ASSERT_TRUE(mute.printed("pinged"));
  Client waiting(daemon);
  std::atomic<bool> cancelled = false;
  const dispatch_semaphore_t answered = dispatch_semaphore_create(0);
  // A cancel looks into the registry's queue, and so waits for it.
  waiting.daemon()->clientCancelPurge({}, [&] {
    cancelled = true;
    dispatch_semaphore_signal(answered);
  });
  // Another client's state is on another queue and is served meanwhile.
  Client(daemon).setState(1, "com.example.key");
  EXPECT_FALSE(cancelled);
  mute.signal(SIGKILL);
  mute.wait();
  static_cast<void>(dispatch_semaphore_wait(answered, DISPATCH_TIME_FOREVER));
  EXPECT_TRUE(cancelled);
}

TEST(HostilePeers, AValueThatIsStoredNestedAsDeepAsMayBeIsReadWithTheWholeState) {
  Daemon daemon;
  Client client(daemon);
  Value nested = "bottom";
  for (int array = 1; array <= 19; ++array) {
    nested = Array{nested};
    client.setState(nested, "com.example." + std::to_string(array));
  }
  Client refused(daemon);
  refused.setState(Array{nested}, "com.example.20");
  EXPECT_NE(refused.failure().find("LimitsExceeded"), std::string::npos) << refused.failure();
  const Value state = client.state(KELVANE_USER_DEFAULTS);
  EXPECT_EQ(client.failure(), "");
  ASSERT_TRUE(state.isDictionary());
  EXPECT_EQ((*state.dictionary())["com.example.19"], nested);
  EXPECT_FALSE(state.dictionary()->contains("com.example.20"));
}

TEST(HostilePeers, CheckInsWithOddIdentifiersAreServedOrRefusedAndHarmNobody) {
  const Folder folder;
  Daemon daemon;
  for (const char* ID : {"", "with/slash", "..", "."}) {
    Process service({built("service_program"), "deletes", ID, folder.path(), "--daemon", daemon.socket()});
    EXPECT_TRUE(service.printed("registered")) << "\"" << ID << "\" " << service.output();
  }
  EXPECT_TRUE(Client(daemon).isServed());
}

TEST(HostilePeers, ACheckInTwiceKeepsTheFirstRecord) {
  const Folder folder;
  Daemon daemon;
  Process first(
      {built("service_program"), "deletes", "com.example.twice", folder.path(), "--daemon", daemon.socket()});
  ASSERT_TRUE(first.printed("registered"));
  Process second(
      {built("service_program"), "deletes", "com.example.twice", folder.path(), "--daemon", daemon.socket()});
  ASSERT_TRUE(second.printed("registered"));
  EXPECT_TRUE(daemon.logged("operating on an existing service"));
  EXPECT_EQ(second.count("pinged"), 0U);
}

}  // namespace
}  // namespace kelvane::tests
