#include <fcntl.h>
#include <sys/socket.h>
#include <array>

#include "platform/dispatch/manual_clock.h"
#include "tests/xpc/echo_server.h"

namespace kelvane::tests {
namespace {

using namespace std::string_literals;

constexpr std::uint64_t second = 1'000'000'000;

class HostileMessage : public OverBothDoors {
 protected:
  RawPeer greetedPeer() {
    RawPeer peer = server_.rawPeer();
    peer.handshake();
    return peer;
  }
  /// A peer of which two calls were answered, so that the second surely did not come with the handshake.
  RawPeer servedPeer() {
    RawPeer peer = greetedPeer();
    for (int call = 0; call < 2; ++call) {
      peer.send(echoCall(1, 8).bytes());
      EXPECT_EQ(peer.receive()->reply_serial, 1U);
    }
    return peer;
  }
  void expectEnd(RawPeer& peer) {
    server_.awaitAnEnd();
    peer.awaitEnd();
    server_.expectOthersAreServed();
  }
  /// A peer that has yet to say BEGIN. It speaks when the server waits for it already, so all that it says is
  /// looked at before it is read.
  RawPeer peerBeforeItsLastLine() {
    RawPeer peer = server_.rawPeer();
    server_.expectOthersAreServed();
    peer.handshake(false);
    return peer;
  }
  /// The message is answered with this error, and the connection stays.
  void expectError(RawMessage message, const std::string& name) {
    RawPeer peer = servedPeer();
    message.serial = 2;
    peer.send(message.bytes());
    const auto answer = peer.receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->type, 3);
    EXPECT_EQ(answer->reply_serial, 2U);
    EXPECT_NE(answer->bytes.find(name), std::string::npos) << answer->bytes;
    peer.send(echoCall(3, 8).bytes());
    EXPECT_EQ(peer.receive()->reply_serial, 3U);
    server_.expectOthersAreServed();
  }
  /// The call reaches its handler, which gets an empty endpoint.
  void expectEmptyEndpoint(const FileDescriptor& passed) {
    RawPeer peer = servedPeer();
    RawMessage call = openBackCall(1);
    call.serial = 2;
    peer.send(call.bytes(), {passed.get()});
    EXPECT_EQ(peer.receive()->type, 2);
    EXPECT_EQ(server_.echo().lastName(), "id");
    EXPECT_FALSE(server_.echo().lastEndpoint());
    server_.expectOthersAreServed();
  }
  static RawMessage openBackCall(std::uint32_t descriptors) {
    RawMessage call;
    call.member = "openBack";
    call.signature = "sh";
    call.body = "\2\0\0\0id\0\0\0\0\0\0"s;
    call.descriptors = descriptors;
    return call;
  }

  ManualClock clock_;
  EchoServer server_{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(, HostileMessage, testing::Values(Door::path, Door::endpoint), nameOf);

TEST_P(HostileMessage, HalfAMessageThenSilenceEndsAfterTenSeconds) {
  RawPeer peer = servedPeer();
  RawPeer completing = servedPeer();
  const std::string whole = echoCall(2, 1000).bytes();
  peer.send(whole.substr(0, 500));
  clock_.awaitWaiterFor(10 * second);
  completing.send(whole.substr(0, 500));
  server_.expectOthersAreServed();
  clock_.advance(5 * second);
  completing.send(whole.substr(500));
  EXPECT_EQ(completing.receive()->reply_serial, 2U);
  EXPECT_EQ(server_.ends(), 1);
  clock_.advance(5 * second);
  expectEnd(peer);
  completing.send(echoCall(3, 8).bytes());
  EXPECT_EQ(completing.receive()->reply_serial, 3U);
}

TEST_P(HostileMessage, HalfAHeaderThenSilenceEndsAfterTenSeconds) {
  RawPeer peer = servedPeer();
  peer.send(echoCall(2, 8).bytes().substr(0, 7));
  clock_.awaitWaiterFor(10 * second);
  clock_.advance(5 * second);
  server_.expectOthersAreServed();
  clock_.advance(5 * second);
  expectEnd(peer);
}

TEST_P(HostileMessage, TheFirstMessageIsTimedAsWell) {
  RawPeer peer = greetedPeer();
  const std::string whole = echoCall(1, 1000).bytes();
  peer.send(whole.substr(0, 300));
  server_.expectOthersAreServed();
  peer.send(whole.substr(300, 300));
  clock_.awaitWaiterFor(10 * second);
  clock_.advance(10 * second);
  expectEnd(peer);
}

TEST_P(HostileMessage, AMessageThatDripsGainsNoTime) {
  RawPeer peer = servedPeer();
  const std::string whole = echoCall(2, 1000).bytes();
  peer.send(whole.substr(0, 8));
  clock_.awaitWaiterFor(10 * second);
  clock_.advance(6 * second);
  peer.send(whole.substr(8, 400));
  server_.expectOthersAreServed();
  clock_.advance(4 * second);
  expectEnd(peer);
}

TEST_P(HostileMessage, HalfAMessageAndDeathEndsAtOnce) {
  RawPeer peer = servedPeer();
  peer.send(echoCall(2, 1000).bytes().substr(0, 500));
  peer.close();
  server_.awaitAnEnd();
  server_.expectOthersAreServed();
}

TEST_P(HostileMessage, AWholeMessageHalfAHeaderAndDeathEndsAtOnce) {
  for (int round = 0; round < 50; ++round) {
    RawPeer peer = servedPeer();
    peer.send(echoCall(2, 8).bytes() + echoCall(3, 8).bytes().substr(0, 7));
    peer.close();
    server_.awaitAnEnd();
  }
  server_.expectOthersAreServed();
}

TEST_P(HostileMessage, AnOversizedMessageIsRefusedByItsHeader) {
  RawPeer peer = servedPeer();
  peer.send(headerClaiming((32U << 20) + 1));
  expectEnd(peer);
}

TEST_P(HostileMessage, AnOversizedMessageIsRefusedWhenItsHeaderCameWithTheHandshake) {
  RawPeer peer = peerBeforeItsLastLine();
  peer.send("BEGIN\r\n" + headerClaiming((32U << 20) + 1));
  expectEnd(peer);
}

TEST_P(HostileMessage, HalfAMessageThatCameWithTheHandshakeEndsAfterTenSeconds) {
  RawPeer peer = peerBeforeItsLastLine();
  const std::string whole = echoCall(1, 8).bytes();
  peer.send("BEGIN\r\n" + whole + whole.substr(0, 40));
  EXPECT_EQ(peer.receive()->reply_serial, 1U);
  clock_.awaitWaiterFor(10 * second);
  clock_.advance(10 * second);
  expectEnd(peer);
}

TEST_P(HostileMessage, ADroppedMessageThatCameWithTheHandshakeEndsTheConnection) {
  RawPeer peer = peerBeforeItsLastLine();
  peer.send("BEGIN\r\n" + echoCall(0, 8).bytes());
  expectEnd(peer);
}

TEST_P(HostileMessage, ADroppedMessageEndsTheConnectionThoughAGoodOneIsRightBehindIt) {
  RawPeer peer = servedPeer();
  RawMessage without_a_path;
  without_a_path.serial = 2;
  without_a_path.path = "";
  peer.send(without_a_path.bytes() + echoCall(3, 8).bytes());
  ASSERT_FALSE(peer.receive()) << "the good one was answered";
  expectEnd(peer);
}

TEST_P(HostileMessage, ALimitThatIsSetHolds) {
  xpc::ConnectionLimits limits;
  limits.message_bytes = 1000;
  EchoServer small(GetParam(), limits);
  RawPeer peer = small.rawPeer();
  peer.handshake();
  RawMessage fits = echoCall(1, 8);
  fits = echoCall(1, 8 + 1000 - fits.bytes().size());
  ASSERT_EQ(fits.bytes().size(), 1000U);
  peer.send(fits.bytes());
  EXPECT_EQ(peer.receive()->type, 2);
  peer.send(echoCall(2, 1000).bytes());
  small.awaitAnEnd();
  peer.awaitEnd();
  small.expectOthersAreServed();
}

TEST_P(HostileMessage, ASizeThatOverflowsIsRefused) {
  RawPeer peer = servedPeer();
  std::string header = headerClaiming(~0U);
  header.replace(12, 4, "\xff\xff\xff\xff");
  peer.send(header);
  expectEnd(peer);
}

TEST_P(HostileMessage, AMessageTooShortToBeOneDoesNotHideTheSizeOfTheNext) {
  RawPeer peer = servedPeer();
  std::string empty = headerClaiming(0);
  empty.replace(12, 4, "\0\0\0\0"s);
  peer.send(empty + headerClaiming(100U << 20));
  expectEnd(peer);
}

TEST_P(HostileMessage, ASerialOfZeroEndsTheConnection) {
  RawPeer peer = servedPeer();
  peer.send(echoCall(0, 8).bytes());
  expectEnd(peer);
}

TEST_P(HostileMessage, AMessageThatIsDroppedDoesNotHideTheSizeOfTheNext) {
  RawPeer peer = servedPeer();
  peer.send(echoCall(0, 8).bytes() + headerClaiming(100U << 20));
  expectEnd(peer);
}

TEST_P(HostileMessage, AWrongEndiannessFlagEndsTheConnection) {
  RawPeer peer = servedPeer();
  RawMessage call = echoCall(2, 8);
  call.endianness = 'x';
  peer.send(call.bytes());
  expectEnd(peer);
}

TEST_P(HostileMessage, ABodyThatContradictsItsSignatureEndsTheConnection) {
  RawPeer peer = servedPeer();
  RawMessage call = echoCall(2, 8);
  call.body = call.body.substr(0, 9);  // the array claims more
  peer.send(call.bytes());
  expectEnd(peer);
}

TEST_P(HostileMessage, AKeyThatIsNotUTF8EndsTheConnection) {
  RawPeer peer = servedPeer();
  RawMessage call = echoCall(2, 8);
  call.body.replace(call.body.find("text"), 1, "\xff");
  peer.send(call.bytes());
  expectEnd(peer);
}

TEST_P(HostileMessage, ABodyThatContradictsItsSignatureEndsTheConnectionWhoeverItIsFor) {
  for (const char* member : {"noSuchMethod", "greet"}) {
    RawPeer peer = servedPeer();
    RawMessage call = echoCall(2, 8);
    call.member = member;
    call.body = call.body.substr(0, 9);
    peer.send(call.bytes());
    expectEnd(peer);
  }
}

TEST_P(HostileMessage, ABodyThatIsMalformedBehindWhatIsRefusedEndsTheConnection) {
  RawPeer peer = servedPeer();
  RawMessage call = echoCallOf(2, "(s)", [](RawWriter& out) { out.align(8).text("x"); });
  call.body.back() = 'y';  // the text's terminator
  peer.send(call.bytes());
  expectEnd(peer);
}

TEST_P(HostileMessage, AWrongSignatureIsAnswered) {
  RawMessage call;
  call.signature = "s";
  call.body = "\1\0\0\0a\0"s;
  expectError(call, "InvalidArgs");
}

TEST_P(HostileMessage, ASecondElementWhereAValueMayBeNilIsAnswered) {
  RawMessage call;
  call.member = "echoAnything";
  call.signature = "av";
  call.body = "\x8\0\0\0\1y\0\5\1y\0\6"s;
  expectError(call, "InvalidArgs");
}

TEST_P(HostileMessage, NoArgumentsWhereOneIsDueIsAnswered) { expectError(RawMessage(), "InvalidArgs"); }

TEST_P(HostileMessage, AnUnknownMethodInterfaceOrObjectIsAnswered) {
  RawMessage method = echoCall(2, 8);
  method.member = "noSuchMethod";
  expectError(method, "UnknownMethod");
  RawMessage interface = echoCall(2, 8);
  interface.interface = "no.such.Interface";
  expectError(interface, "UnknownInterface");
  RawMessage object = echoCall(2, 8);
  object.path = "/no/such/object";
  expectError(object, "UnknownObject");
}

TEST_P(HostileMessage, AReplyThatNobodyAskedForIsIgnored) {
  RawPeer peer = servedPeer();
  RawMessage reply;
  reply.type = 2;
  reply.reply_serial = 77;
  reply.serial = 2;
  peer.send(reply.bytes());
  peer.send(echoCall(3, 8).bytes());
  EXPECT_EQ(peer.receive()->reply_serial, 3U);
  server_.expectOthersAreServed();
}

TEST_P(HostileMessage, NoDescriptorForAnEndpointEndsTheConnection) {
  RawPeer peer = servedPeer();
  peer.send(openBackCall(0).bytes());
  expectEnd(peer);
}

TEST_P(HostileMessage, ARegularFileForAnEndpointIsAnEmptyOne) {
  const FileDescriptor file(::open("/proc/self/stat", O_RDONLY | O_CLOEXEC));
  expectEmptyEndpoint(file);
}

TEST_P(HostileMessage, AStreamSocketForAnEndpointIsAnEmptyOne) {
  std::array<int, 2> pair{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
  const FileDescriptor one(pair[0]);
  const FileDescriptor other(pair[1]);
  expectEmptyEndpoint(one);
}

TEST_P(HostileMessage, AnUnconnectedSocketForAnEndpointIsAnEmptyOne) {
  const FileDescriptor lonely(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  expectEmptyEndpoint(lonely);
}

TEST_P(HostileMessage, AConnectedSocketForAnEndpointIsTaken) {
  std::array<int, 2> pair{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()), 0);
  const FileDescriptor one(pair[0]);
  const FileDescriptor other(pair[1]);
  RawPeer peer = servedPeer();
  RawMessage call = openBackCall(1);
  call.serial = 2;
  peer.send(call.bytes(), {one.get()});
  EXPECT_EQ(peer.receive()->type, 2);
  EXPECT_EQ(server_.echo().lastName(), "id");
  EXPECT_TRUE(server_.echo().lastEndpoint().open());
}

TEST_P(HostileMessage, APeerThatDiesAfterItsCallAndBeforeTheReplyCostsItsOwnConnectionOnly) {
  RawPeer peer = servedPeer();
  RawMessage call;
  call.member = "never";
  call.serial = 2;
  peer.send(call.bytes());
  peer.send(echoCall(3, 8).bytes());
  EXPECT_EQ(peer.receive()->reply_serial, 3U);
  peer.close();
  server_.awaitAnEnd();
  // The reply comes too late, and nobody minds.
  server_.echo().takeKept().at(0)();
  server_.expectOthersAreServed();
}

TEST_P(HostileMessage, APeerThatDiesWithoutHavingReadItsRepliesIsNoticed) {
  for (int round = 0; round < 20; ++round) {
    RawPeer peer = servedPeer();
    peer.send(echoCall(2, 8).bytes());
    peer.awaitInput();
    peer.close();
    server_.awaitAnEnd();
  }
  server_.expectOthersAreServed();
}

TEST_P(HostileMessage, APeerThatFloodsWithCallsOfTheLibrarysOwnCanBeInvalidated) {
  RawPeer peer = servedPeer();
  const auto flooded = server_.lastAccepted();
  RawMessage ping;
  ping.interface = "org.freedesktop.DBus.Peer";
  ping.member = "Ping";
  ping.flags = 1;  // wants no reply
  std::string many;
  for (std::uint32_t serial = 2; serial < 500; ++serial) {
    ping.serial = serial;
    many += ping.bytes();
  }
  const Signal flooding;
  const Signal over;
  dispatch_async(dispatch_get_global_queue(0, 0), [&] {
    for (int round = 0; peer.send(many); ++round) {
      if (round == 3) flooding();
    }
    over();
  });
  flooding.wait();
  server_.expectOthersAreServed();
  flooded->invalidate();
  over.wait();
}

}  // namespace
}  // namespace kelvane::tests
