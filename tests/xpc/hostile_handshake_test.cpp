#include "platform/dispatch/manual_clock.h"
#include "tests/xpc/echo_server.h"

namespace kelvane::tests {
namespace {

using namespace std::string_literals;

constexpr std::uint64_t second = 1'000'000'000;

class HostileHandshake : public OverBothDoors {};
INSTANTIATE_TEST_SUITE_P(, HostileHandshake, testing::Values(Door::path, Door::endpoint), nameOf);

TEST_P(HostileHandshake, GarbageInsteadOfTheHandshakeCostsItsOwnConnectionOnly) {
  EchoServer server(GetParam());
  RawPeer peer = server.rawPeer();
  peer.send("\x7f\x45\x4c\x46 this is not a handshake\r\n\r\n");
  server.awaitAnEnd();
  peer.awaitEnd();
  server.expectOthersAreServed();
}

TEST_P(HostileHandshake, AnEndlessFirstLineIsNotTakenInForEver) {
  EchoServer server(GetParam());
  RawPeer peer = server.rawPeer();
  peer.send("\0AUTH "s);
  const std::string much(65536, 'A');
  while (peer.send(much)) {
  }
  server.awaitAnEnd();
  server.expectOthersAreServed();
}

TEST_P(HostileHandshake, AnotherUsersNumberIsRefused) {
  ManualClock clock;
  EchoServer server(GetParam());
  RawPeer peer = server.rawPeer();
  peer.send("\0AUTH EXTERNAL 3132333435\r\n"s);
  EXPECT_EQ(peer.readLine(), "REJECTED EXTERNAL\r\n");
  peer.send("BEGIN\r\n" + echoCall(1, 8).bytes());
  server.expectOthersAreServed();
  clock.advance(5 * second);
  server.awaitAnEnd();
  EXPECT_EQ(server.echo().text_calls, 0);
}

TEST_P(HostileHandshake, APeerThatNeverSpeaksIsGoneAfterFiveSeconds) {
  ManualClock clock;
  EchoServer server(GetParam());
  RawPeer silent = server.rawPeer();
  RawPeer late = server.rawPeer();
  clock.awaitWaiterFor(5 * second);
  server.expectOthersAreServed();  // so that both have been accepted
  clock.advance(5 * second / 2);
  late.handshake();
  late.send(echoCall(1, 8).bytes());
  EXPECT_TRUE(late.receive());
  EXPECT_EQ(server.ends(), 1);  // of the other that was served
  clock.advance(5 * second / 2);
  server.awaitAnEnd();
  silent.awaitEnd();
  // The one that spoke in time has no deadline left.
  late.send(echoCall(2, 8).bytes());
  EXPECT_TRUE(late.receive());
  server.expectOthersAreServed();
}

TEST_P(HostileHandshake, AHandshakeThatDripsGainsNoTime) {
  ManualClock clock;
  EchoServer server(GetParam());
  RawPeer dripping = server.rawPeer();
  dripping.handshake(false);
  clock.advance(3 * second);
  dripping.send("BEG");
  server.expectOthersAreServed();
  clock.advance(2 * second);
  server.awaitAnEnd();
  dripping.awaitEnd();
}

TEST_P(HostileHandshake, APeerThatDiesBeforeInOrAfterTheHandshakeCostsItsOwnConnectionOnly) {
  EchoServer server(GetParam());
  RawPeer before = server.rawPeer();
  before.close();
  server.awaitAnEnd();
  RawPeer within = server.rawPeer();
  within.send("\0AUTH EXT"s);
  within.close();
  server.awaitAnEnd();
  RawPeer almost = server.rawPeer();
  almost.handshake(false);
  almost.close();
  server.awaitAnEnd();
  RawPeer after = server.rawPeer();
  after.handshake();
  after.close();
  server.awaitAnEnd();
  server.expectOthersAreServed();
}

TEST_P(HostileHandshake, ACallInOnePacketWithTheEndOfTheHandshakeIsAnswered) {
  EchoServer server(GetParam());
  RawPeer peer = server.rawPeer();
  peer.handshake(false);
  peer.send("BEGIN\r\n" + echoCall(1, 8).bytes() + echoCall(2, 8).bytes());
  EXPECT_EQ(peer.receive()->reply_serial, 1U);
  EXPECT_EQ(peer.receive()->reply_serial, 2U);
}

}  // namespace
}  // namespace kelvane::tests
