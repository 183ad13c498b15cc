#include <gmock/gmock.h>

#include "platform/wire/reader.h"
#include "tests/wire/transport_fixture.h"

namespace kelvane::wire {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(TransportTest, HandshakeAndMessagesMayComeInOneWrite) {
  makeTransport(Transport::Side::server);
  passTo(peer_.get(), opening() + callBytes("One") + callBytes("Two"));
  EXPECT_EQ(receive(), Outcome::drained);
  EXPECT_THAT(members_, ElementsAre("One", "Two"));
  EXPECT_THAT(readFrom(peer_.get()), testing::MatchesRegex("OK [0-9a-f]{32}\r\nAGREE_UNIX_FD\r\n"));
}

TEST_F(TransportTest, StreamMayBeCutAtEveryPosition) {
  const std::string stream = opening() + callBytes("One", "text") + callBytes("Two", std::string(300, 'x'));
  for (std::size_t cut = 1; cut < stream.size(); ++cut) {
    std::tie(ours_, peer_) = socketPair();
    makeTransport(Transport::Side::server);
    members_.clear();
    passTo(peer_.get(), stream.substr(0, cut));
    ASSERT_NE(receive(), Outcome::ended) << "cut at " << cut << ": " << transport_->reason();
    passTo(peer_.get(), stream.substr(cut));
    ASSERT_NE(receive(), Outcome::ended) << "cut at " << cut << ": " << transport_->reason();
    ASSERT_THAT(members_, ElementsAre("One", "Two")) << "cut at " << cut;
    EXPECT_EQ(account_->used(Resource::received_bytes), 0U);
  }
}

TEST_F(TransportTest, StreamMayComeByteByByte) {
  makeTransport(Transport::Side::server);
  const std::string text(2000, 'x');
  for (const char c : opening() + callBytes("One", text) + callBytes("Two")) {
    passTo(peer_.get(), std::string_view(&c, 1));
    ASSERT_NE(receive(), Outcome::ended) << transport_->reason();
  }
  EXPECT_THAT(members_, ElementsAre("One", "Two"));
}

TEST_F(TransportTest, BytesOfTheBodyAreTheSameHoweverTheyArrive) {
  std::string text;
  for (int i = 0; text.size() < 200'000; ++i) text += std::to_string(i) + ",";
  const std::string bytes = callBytes("Long", text);
  for (const std::size_t piece : {1'000U, 7'777U, 40'000U, 65'536U, 100'000U}) {
    std::tie(ours_, peer_) = socketPair();
    makeServer();
    std::string read;
    const auto handler = [&](Transport::Received& received) {
      Reader reader(received.message, received.descriptors);
      read = reader.readString();
      EXPECT_TRUE(reader.finish());
      return true;
    };
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
      passTo(peer_.get(), std::string_view(bytes).substr(at, piece));
      Outcome outcome = Outcome::more;
      while (outcome == Outcome::more) outcome = transport_->receive(handler);
      ASSERT_EQ(outcome, Outcome::drained) << transport_->reason();
    }
    EXPECT_EQ(read, text) << "in pieces of " << piece;
  }
}

TEST_F(TransportTest, MessagesBehindALongOneAreHandedOut) {
  makeServer();
  const std::string long_one = callBytes("Long", std::string(150'000, 'x'));
  passTo(peer_.get(), long_one.substr(0, 70'000));
  EXPECT_EQ(receiveAll(), Outcome::drained);
  EXPECT_TRUE(transport_->isMessageUnderWay());
  passTo(peer_.get(), long_one.substr(70'000) + callBytes("Short"));
  EXPECT_EQ(receiveAll(), Outcome::drained);
  EXPECT_THAT(members_, ElementsAre("Long", "Short"));
  EXPECT_FALSE(transport_->isMessageUnderWay());
}

TEST_F(TransportTest, MessageIsUnderWayUntilItsEndHasCome) {
  makeServer();
  EXPECT_FALSE(transport_->isMessageUnderWay());
  passTo(peer_.get(), "l");
  receive();
  EXPECT_TRUE(transport_->isMessageUnderWay());
  passTo(peer_.get(), callBytes("One").substr(1));
  receive();
  EXPECT_FALSE(transport_->isMessageUnderWay());
  EXPECT_THAT(members_, ElementsAre("One"));
}

TEST_F(TransportTest, HandlerMayStopAfterEachMessage) {
  makeServer();
  goes_on_ = false;
  const std::string third = callBytes("Three");
  passTo(peer_.get(), callBytes("One") + callBytes("Two") + third.substr(0, 30));
  EXPECT_EQ(receive(), Outcome::more);
  EXPECT_THAT(members_, ElementsAre("One"));
  EXPECT_FALSE(transport_->isMessageUnderWay());
  EXPECT_EQ(receive(), Outcome::more);
  EXPECT_THAT(members_, ElementsAre("One", "Two"));
  EXPECT_EQ(receiveAll(), Outcome::drained);
  EXPECT_TRUE(transport_->isMessageUnderWay());
  passTo(peer_.get(), third.substr(30));
  receiveAll();
  EXPECT_THAT(members_, ElementsAre("One", "Two", "Three"));
}

TEST_F(TransportTest, HandlerThatStopsAfterTheLastMessageLeavesNothing) {
  makeServer();
  goes_on_ = false;
  passTo(peer_.get(), callBytes("One"));
  EXPECT_EQ(receive(), Outcome::drained);
  EXPECT_THAT(members_, ElementsAre("One"));
}

TEST_F(TransportTest, PeerThatClosesAfterWholeMessagesIsHeardFirst) {
  makeServer();
  passTo(peer_.get(), callBytes("One") + callBytes("Two"));
  peer_.reset();
  EXPECT_EQ(receive(), Outcome::drained);
  EXPECT_THAT(members_, ElementsAre("One", "Two"));
  EXPECT_EQ(receive(), Outcome::ended);
  EXPECT_EQ(transport_->reason(), "the peer closed the connection");
  EXPECT_EQ(receive(), Outcome::ended);
}

TEST_F(TransportTest, PeerThatLeavesRepliesUnreadIsHeardFirstToo) {
  makeServer();
  passTo(transport_->socket(), "unread");
  passTo(peer_.get(), callBytes("One"));
  peer_.reset();
  EXPECT_EQ(receiveAll(), Outcome::drained);
  EXPECT_THAT(members_, ElementsAre("One"));
  EXPECT_EQ(receive(), Outcome::ended);
  EXPECT_EQ(transport_->reason(), "the peer closed the connection");
}

TEST_F(TransportTest, NothingIsReadAfterTheEnd) {
  makeServer();
  passTo(peer_.get(), std::string(16, 'x'));
  EXPECT_EQ(receive(), Outcome::ended);
  passTo(peer_.get(), callBytes("One"));
  EXPECT_EQ(receive(), Outcome::ended);
  EXPECT_EQ(readFrom(transport_->socket()), callBytes("One"));
  EXPECT_EQ(account_->used(Resource::received_bytes), 0U);
}

TEST_F(TransportTest, EndInTheMiddleOfAMessageIsSaid) {
  makeServer();
  passTo(peer_.get(), callBytes("One").substr(0, 20));
  peer_.reset();
  EXPECT_EQ(receiveAll(), Outcome::drained);
  EXPECT_EQ(receive(), Outcome::ended);
  EXPECT_EQ(transport_->reason(), "the peer closed the connection in the middle of a message");
  EXPECT_FALSE(transport_->isMessageUnderWay()) << "nothing is kept";
}

TEST_F(TransportTest, BytesThatAreNoMessageEndAtOnce) {
  makeServer();
  passTo(peer_.get(), callBytes("One") + std::string(16, 'x'));
  EXPECT_EQ(receive(), Outcome::ended);
  EXPECT_THAT(members_, ElementsAre("One"));
  EXPECT_EQ(transport_->reason(), "the peer sent bytes that do not begin a message");
}

TEST_F(TransportTest, MessageWithAnInvalidHeaderEnds) {
  makeServer();
  std::string bytes = callBytes("One");
  bytes.replace(bytes.find("One"), 3, "O.e");
  passTo(peer_.get(), bytes);
  EXPECT_EQ(receive(), Outcome::ended);
  EXPECT_EQ(transport_->reason(), "the peer sent a message with an invalid header");
}

TEST_F(TransportTest, MessageThatClaimsTooMuchEndsBeforeItCame) {
  makeServer({.longest_message = 1U << 20});
  passTo(peer_.get(), startOfCall((1U << 20) + 8));
  EXPECT_EQ(receive(), Outcome::ended);
  EXPECT_EQ(transport_->reason(), "the peer began a message of 1048584 bytes: at most 1048576 are allowed");
}

TEST_F(TransportTest, FailedHandshakeEndsAndIsAnswered) {
  makeTransport(Transport::Side::server);
  passTo(peer_.get(), std::string(1, '\0') + "AUTH EXTERNAL 00\r\nBEGIN\r\n");
  EXPECT_EQ(receive(), Outcome::ended);
  EXPECT_EQ(readFrom(peer_.get()), "REJECTED EXTERNAL\r\n");
}

TEST_F(TransportTest, UnfinishedHandshakeIsCharged) {
  makeTransport(Transport::Side::server);
  passTo(peer_.get(), std::string(1, '\0') + std::string(1000, 'x'));
  EXPECT_EQ(receive(), Outcome::drained);
  EXPECT_EQ(account_->used(Resource::received_bytes), 1000U);
  EXPECT_FALSE(transport_->isMessageUnderWay());
}

TEST_F(TransportTest, TransportThatIdlesChargesNothing) {
  makeServer();
  passTo(peer_.get(), callBytes("One"));
  receiveAll();
  EXPECT_EQ(account_->used(Resource::received_bytes), 0U);
}

TEST_F(TransportTest, MessageIsChargedUntilTheHandlerIsDoneWithIt) {
  makeServer();
  keeps_ = true;
  const std::string bytes = callBytes("One");
  passTo(peer_.get(), bytes + bytes.substr(0, 50));
  receiveAll();
  EXPECT_EQ(account_->used(Resource::received_bytes), bytes.size() + 50);
  charges_.clear();
  EXPECT_EQ(account_->used(Resource::received_bytes), 50U);
}

TEST_F(TransportTest, NothingIsReadWithoutRoomInTheAccount) {
  makeServer();
  Charge others = Charge::of(account_, Resource::received_bytes, 1U << 20);
  passTo(peer_.get(), callBytes("One"));
  EXPECT_EQ(receive(), Outcome::no_room);
  EXPECT_EQ(transport_->missing(), Resource::received_bytes);
  EXPECT_THAT(members_, IsEmpty());
  others.shrink(10);
  EXPECT_EQ(receive(), Outcome::more);
  EXPECT_EQ(receive(), Outcome::no_room);
  EXPECT_TRUE(transport_->isMessageUnderWay());
  EXPECT_EQ(account_->used(Resource::received_bytes), 1U << 20);
  others.reset();
  EXPECT_EQ(receive(), Outcome::drained);
  EXPECT_THAT(members_, ElementsAre("One"));
}

TEST_F(TransportTest, LongMessageStopsWhereTheAccountEnds) {
  makeServer();
  const std::string start = startOfCall(8U << 20);
  passTo(peer_.get(), start);
  const std::string chunk(50'000, 'x');
  Outcome outcome = Outcome::drained;
  for (int i = 0; i < 100 && outcome != Outcome::no_room; ++i) {
    passTo(peer_.get(), chunk);
    outcome = receiveAll();
  }
  EXPECT_EQ(outcome, Outcome::no_room);
  EXPECT_EQ(account_->used(Resource::received_bytes), 1U << 20);
}

TEST_F(TransportTest, HandlerMayReadFromAnotherTransport) {
  makeServer();
  auto [other_end, other_peer] = socketPair();
  Transport other(std::move(other_end), Transport::Side::server, ::geteuid(), account_, {});
  passTo(peer_.get(), callBytes("Outer", "outer text"));
  passTo(other_peer.get(), opening(false) + callBytes("Inner", "inner text, and longer"));
  std::string inner;
  std::string outer;
  transport_->receive([&](Transport::Received& received) {
    other.receive([&](Transport::Received& within) {
      inner = Reader(within.message, {}).readString();
      return true;
    });
    outer = Reader(received.message, {}).readString();
    return true;
  });
  EXPECT_EQ(inner, "inner text, and longer");
  EXPECT_EQ(outer, "outer text");
}

TEST_F(TransportTest, HandlerMayAnswer) {
  makeServer();
  passTo(peer_.get(), callBytes("One") + callBytes("Two"));
  std::vector<std::uint32_t> serials;
  transport_->receive([&](Transport::Received& received) {
    Outgoing answer = makeCall("Answer", received.message.header.member);
    int error = 0;
    serials.push_back(transport_->send(answer, error));
    return true;
  });
  EXPECT_THAT(serials, ElementsAre(1, 2));
  EXPECT_EQ(readFrom(peer_.get()), callBytes("Answer", "One", {}, 1) + callBytes("Answer", "Two", {}, 2));
}

}  // namespace
}  // namespace kelvane::wire
