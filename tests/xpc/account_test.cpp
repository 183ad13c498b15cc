// The limits on one user's peers, and that they do not affect other users' peers.

#include <fcntl.h>
#include <sys/socket.h>
#include <array>

#include "platform/dispatch/manual_clock.h"
#include "tests/xpc/echo_server.h"
#include "tests/xpc/other_user.h"

namespace kelvane::tests {
namespace {

using wire::Resource;

constexpr uid_t somebody = 65534;
constexpr uid_t somebody_else = 65533;
constexpr std::uint64_t second = 1'000'000'000;

wire::Limits limitsWith(Resource resource, std::uint64_t limit) {
  wire::Limits limits = wire::ordinaryLimits();
  limits.at(static_cast<std::size_t>(resource)) = limit;
  return limits;
}

/// A server that limits one resource to this amount, for everybody but root.
class Limited {
 public:
  Limited(Resource resource, std::uint64_t limit)
      : accounts_(limitsWith(resource, limit), wire::privilegedLimits()) {}

  [[nodiscard]] RawPeer peer(uid_t user = somebody) const { return peerOf(user, server_.path()); }
  [[nodiscard]] std::uint64_t used(Resource resource, uid_t user = somebody) {
    return accounts_.of(user)->used(resource);
  }
  /// Serves others until that much is charged, no more and no less.
  void awaitUse(Resource resource, std::uint64_t amount) {
    while (used(resource) != amount) server_.expectOthersAreServed();
  }
  EchoServer& server() { return server_; }
  wire::Accounts& accounts() { return accounts_; }

 private:
  wire::Accounts accounts_;
  EchoServer server_{Door::path, {}, &accounts_};
};

RawMessage neverCall(std::uint32_t serial) {
  RawMessage call;
  call.serial = serial;
  call.member = "never";
  return call;
}

std::string neverCalls(std::uint32_t first, std::uint32_t count) {
  std::string calls;
  for (std::uint32_t serial = first; serial < first + count; ++serial) calls += neverCall(serial).bytes();
  return calls;
}

void expectReplyTo(RawPeer& peer, std::uint32_t serial) {
  const auto reply = peer.receive();
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->type, 2);
  EXPECT_EQ(reply->reply_serial, serial);
}

void expectError(RawPeer& peer, std::uint32_t serial, const std::string& name) {
  const auto reply = peer.receive();
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->type, 3);
  EXPECT_EQ(reply->reply_serial, serial);
  EXPECT_NE(reply->bytes.find(name), std::string::npos) << reply->bytes;
}

TEST(Account, OfAFloodIsReadNoFurtherUntilACallIsDoneAndThenGoesOn) {
  Limited limited(Resource::calls, 4);
  std::array<RawPeer, 2> peers{limited.peer(), limited.peer()};
  for (RawPeer& peer : peers) peer.send(neverCalls(1, 5));
  std::size_t answered = 0;
  while (answered < 10) {
    const std::size_t in_hand = std::min<std::size_t>(4, 10 - answered);
    while (limited.server().echo().keptCount() < in_hand) limited.server().expectOthersAreServed();
    for (int round = 0; round < 3; ++round) limited.server().expectOthersAreServed();
    ASSERT_EQ(limited.server().echo().keptCount(), in_hand);
    EXPECT_EQ(limited.used(Resource::calls), in_hand);
    const auto kept = limited.server().echo().takeKept();
    answered += kept.size();
    for (const auto& reply : kept) reply();
  }
  for (RawPeer& peer : peers) {
    for (std::uint32_t serial = 1; serial <= 5; ++serial) expectReplyTo(peer, serial);
  }
  limited.awaitUse(Resource::calls, 0);
}

TEST(Account, ThatHasNoCallLeftHoldsUpNobodyElses) {
  Limited limited(Resource::calls, 1);
  RawPeer greedy = limited.peer();
  greedy.send(neverCalls(1, 3));
  limited.awaitUse(Resource::calls, 1);
  RawPeer other = limited.peer(somebody_else);
  for (std::uint32_t serial = 1; serial <= 100; ++serial) {
    other.send(echoCall(serial, 8).bytes());
    expectReplyTo(other, serial);
  }
  EXPECT_EQ(limited.server().echo().keptCount(), 1U);
}

TEST(Account, OfAPeerThatIsGoneIsPaidOnceTheReplyIsDropped) {
  Limited limited(Resource::calls, 1);
  {
    RawPeer gone = limited.peer();
    gone.send(neverCall(1).bytes());
    limited.awaitUse(Resource::calls, 1);
  }
  limited.awaitUse(Resource::connections, 0);
  EXPECT_EQ(limited.used(Resource::calls), 1U);
  static_cast<void>(limited.server().echo().takeKept());
  EXPECT_EQ(limited.used(Resource::calls), 0U);
}

TEST(Account, DoesNotPayForACallThatIsAnsweredThoughItsReplyIsKept) {
  Limited limited(Resource::calls, 8);
  RawPeer peer = limited.peer();
  peer.send(neverCall(1).bytes());
  limited.awaitUse(Resource::calls, 1);
  while (limited.server().echo().keptCount() == 0) limited.server().expectOthersAreServed();
  const auto kept = limited.server().echo().takeKept();
  kept.at(0)();
  EXPECT_EQ(limited.used(Resource::calls), 0U);
}

TEST(Account, PaysForACallUntilWhatItsHandlerQueuedIsDoneThoughItIsAnswered) {
  Limited limited(Resource::calls, 8);
  std::mutex mutex;
  xpc::CurrentCall call;
  limited.server().echo().setOnEcho([&](const Dictionary& info) {
    if (!info.contains("text")) return;
    const std::scoped_lock lock(mutex);
    call = xpc::currentCall();
    EXPECT_EQ(call.account(), xpc::Connection::current()->account());
  });
  EXPECT_FALSE(xpc::currentCall());
  RawPeer peer = limited.peer();
  peer.send(echoCall(1, 100).bytes());
  expectReplyTo(peer, 1);
  EXPECT_EQ(limited.used(Resource::calls), 1U);
  EXPECT_GE(limited.used(Resource::received_bytes), 100U);
  {
    const std::scoped_lock lock(mutex);
    EXPECT_EQ(call.account()->user(), somebody);
    call = {};
  }
  limited.awaitUse(Resource::calls, 0);
  limited.awaitUse(Resource::received_bytes, 0);
}

TEST(Account, ACallMayBeRefusedAndLaterAnswersDoNothing) {
  Limited limited(Resource::calls, 8);
  limited.server().echo().setOnEcho([](const Dictionary& info) {
    if (info.contains("text")) xpc::currentCall().refuse(xpc::error_limits_exceeded, "too much of it");
  });
  RawPeer peer = limited.peer();
  peer.send(echoCall(1, 8).bytes() + neverCall(2).bytes());
  expectError(peer, 1, "too much of it");
  while (limited.server().echo().keptCount() == 0) limited.server().expectOthersAreServed();
  limited.server().echo().takeKept().at(0)();
  expectReplyTo(peer, 2);
}

TEST(Account, WithoutRoomForMoreBytesIsReadNoFurtherUntilSomeAreReleased) {
  ManualClock clock;
  Limited limited(Resource::received_bytes, 100'000);
  RawPeer first = limited.peer();
  RawPeer second_peer = limited.peer();
  const std::string whole = echoCall(1, 60'000).bytes();
  first.send(whole.substr(0, 50'000));
  limited.awaitUse(Resource::received_bytes, 50'000);
  second_peer.send(whole);
  limited.awaitUse(Resource::received_bytes, 100'000);
  for (int round = 0; round < 5; ++round) limited.server().expectOthersAreServed();
  EXPECT_EQ(limited.server().echo().text_calls, 0);
  first.close();
  expectReplyTo(second_peer, 1);
  limited.awaitUse(Resource::received_bytes, 0);
}

TEST(Account, PartsOfMessagesThatWaitForEachOthersRoomEndInTheirTime) {
  ManualClock clock;
  Limited limited(Resource::received_bytes, 100'000);
  std::array<RawPeer, 2> peers{limited.peer(), limited.peer()};
  for (RawPeer& peer : peers) peer.send(echoCall(1, 60'000).bytes().substr(0, 55'000));
  limited.awaitUse(Resource::received_bytes, 100'000);
  // Its time begins a moment after a part has taken its room.
  for (RawPeer& peer : peers) {
    while (!peer.hasEnded()) {
      clock.advance(10 * second);
      limited.server().expectOthersAreServed();
    }
  }
  limited.awaitUse(Resource::received_bytes, 0);
}

TEST(Account, AnAnswerForWhichThereIsNoRoomBecomesAnError) {
  Limited limited(Resource::queued_bytes, 1 << 20);
  limited.server().echo().setInsteadOfText(Dictionary{{"big", std::string(2 << 20, 'x')}});
  RawPeer peer = limited.peer();
  peer.send(echoCall(1, 8).bytes());
  expectError(peer, 1, xpc::error_limits_exceeded);
  peer.send(neverCall(2).bytes());
  while (limited.server().echo().keptCount() == 0) limited.server().expectOthersAreServed();
  limited.server().echo().takeKept().at(0)();
  expectReplyTo(peer, 2);
}

TEST(Account, PaysForConnectionsThroughAnEndpointThatItsUserHandedIn) {
  Limited limited(Resource::connections, 2);
  std::array<int, 2> pair{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()), 0);
  const FileDescriptor ours(pair[0]);
  const FileDescriptor theirs(pair[1]);
  RawPeer peer = limited.peer();
  RawMessage call;
  call.member = "openBack";
  call.signature = "sh";
  call.body = std::string("\2\0\0\0id\0\0\0\0\0\0", 12);
  call.descriptors = 1;
  peer.send(call.bytes(), {theirs.get()});
  expectReplyTo(peer, 1);
  limited.awaitUse(Resource::descriptors, 0);  // it has been handed over
  const xpc::Endpoint endpoint = limited.server().echo().lastEndpoint();
  ASSERT_TRUE(endpoint.payer());
  EXPECT_EQ(endpoint.payer()->user(), somebody);
  const auto one = xpc::Connection::initWithListenerEndpoint(endpoint);
  EXPECT_EQ(limited.used(Resource::connections), 2U);
  // Beside the peer's own connection there is room for one.
  const auto two = xpc::Connection::initWithListenerEndpoint(endpoint);
  const Signal invalidated;
  two->setInvalidationHandler([&] { invalidated(); });
  two->resume();
  invalidated.wait();
  one->invalidate();
  EXPECT_EQ(limited.used(Resource::connections), 1U);
}

// The values of such a message take ten times its bytes and more.
TEST(Account, PaysForTheValuesThatAMessageBecomes) {
  Limited limited(Resource::received_bytes, 1 << 20);
  RawPeer peer = limited.peer();
  const auto empty_arrays = [](std::uint32_t count) {
    return [count](RawWriter& out) {
      out.number(4 * count);
      for (std::uint32_t i = 0; i < count; ++i) out.number(0);
    };
  };
  peer.send(echoCallOf(1, "aai", empty_arrays(30'000)).bytes());
  expectError(peer, 1, xpc::error_limits_exceeded);
  limited.awaitUse(Resource::received_bytes, 0);
  peer.send(echoCallOf(2, "aai", empty_arrays(1000)).bytes());
  expectReplyTo(peer, 2);
  limited.awaitUse(Resource::received_bytes, 0);
}

TEST(Account, AMessageHoldsAMillionValuesAtMost) {
  EchoServer server(Door::endpoint);
  RawPeer peer = server.rawPeer();
  peer.handshake();
  const auto bytes = [](std::uint32_t count) {
    return [count](RawWriter& out) { out.number(2 * count).raw(std::string(2 * count, '\1')); };
  };
  peer.send(echoCallOf(1, "aq", bytes((1 << 20) + 1)).bytes());
  expectError(peer, 1, xpc::error_limits_exceeded);
  peer.send(echoCallOf(2, "aq", bytes(1 << 19)).bytes());
  expectReplyTo(peer, 2);
}

}  // namespace
}  // namespace kelvane::tests
