#include <sys/socket.h>
#include <array>
#include <atomic>
#include <string>
#include <vector>

#include "tests/xpc/echo_server.h"

namespace kelvane::tests {
namespace {

class BackPressure : public OverBothDoors {};
INSTANTIATE_TEST_SUITE_P(, BackPressure, testing::Values(Door::path, Door::endpoint), nameOf);

RawMessage openBackCall(std::uint32_t serial) {
  RawMessage call;
  call.serial = serial;
  call.member = "openBack";
  call.signature = "sh";
  call.body = std::string("\2\0\0\0id\0\0\0\0\0\0", 12);
  call.descriptors = 1;
  return call;
}

/// Sends calls until the socket has taken no more and none is being handled any longer; how many went whole.
class Pipeline {
 public:
  Pipeline(RawPeer& peer, EchoServer& server, std::size_t text_bytes)
      : peer_(peer), server_(server), text_bytes_(text_bytes) {}

  /// Writes until so many calls were handled and, though others are served meanwhile, no more is taken.
  void fill(int calls) {
    for (int idle = 0; idle < 3;) {
      if (pending_.empty()) pending_ = echoCall(sent_ + 1, text_bytes_).bytes();
      const std::size_t went = peer_.sendWhatFits(pending_);
      pending_.erase(0, went);
      if (pending_.empty()) ++sent_;
      if (went == 0) server_.expectOthersAreServed();
      idle = went == 0 && server_.echo().text_calls >= calls ? idle + 1 : 0;
    }
  }
  /// Reads one reply; the rest of the call under way goes before it when there is room.
  void expectNextReply() {
    const auto reply = peer_.receive();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->type, 2);
    EXPECT_EQ(reply->reply_serial, ++received_);
  }
  void finish() {
    while (received_ < sent_ && !testing::Test::HasFatalFailure()) expectNextReply();
    if (pending_.empty() || !peer_.send(pending_)) return;
    pending_.clear();
    ++sent_;
    expectNextReply();
  }
  [[nodiscard]] std::uint32_t sent() const { return sent_; }

 private:
  RawPeer& peer_;
  EchoServer& server_;
  const std::size_t text_bytes_;
  std::string pending_;
  std::uint32_t sent_ = 0;
  std::uint32_t received_ = 0;
};

TEST_P(BackPressure, NothingMoreIsReadFromAPeerThatDoesNotReadItsRepliesUntilItDoes) {
  EchoServer server(GetParam());
  RawPeer peer = server.rawPeer();
  peer.handshake();
  Pipeline pipeline(peer, server, 100'000);
  pipeline.fill(64);
  // Those in hand, and what the two sockets hold.
  EXPECT_LT(pipeline.sent(), 80U);
  pipeline.finish();
  // It is served as before, more than once.
  const std::uint32_t before = pipeline.sent();
  pipeline.fill(static_cast<int>(before) + 64);
  EXPECT_LT(pipeline.sent(), before + 80U);
  pipeline.finish();
  server.expectOthersAreServed();
}

TEST_P(BackPressure, AReplyThatIsReadInPiecesLetsNoFurtherCallsIn) {
  xpc::ConnectionLimits limits;
  limits.calls_in_hand = 4;
  EchoServer server(GetParam(), limits);
  server.echo().setInsteadOfText(Dictionary{{"big", std::string(2 << 20, 'x')}});
  RawPeer peer = server.rawPeer();
  peer.handshake();
  std::string calls;
  for (std::uint32_t serial = 1; serial <= 30; ++serial) calls += echoCall(serial, 8).bytes();
  peer.send(calls);
  for (std::uint32_t serial = 1; serial <= 30; ++serial) {
    EXPECT_EQ(peer.receive()->reply_serial, serial);
    if (serial % 8 == 0) server.expectOthersAreServed();
    // Those in hand, the one that went over, and the one that the peer is receiving.
    EXPECT_LE(server.echo().text_calls, static_cast<int>(serial) + 7);
  }
}

TEST_P(BackPressure, NothingMoreIsReadWhileTooManyCallsWaitForTheirHandler) {
  EchoServer server(GetParam());
  const Signal entered;
  const Signal go_on;
  std::atomic<bool> first{true};
  server.echo().setOnEcho([&](const Dictionary& info) {
    if (!info.contains("text") || !first.exchange(false)) return;
    entered();
    go_on.wait();
  });
  RawPeer peer = server.rawPeer();
  peer.handshake();
  peer.send(echoCall(1, 8).bytes());
  entered.wait();
  std::string some;
  std::uint32_t serial = 2;
  std::uint64_t taken = 0;
  for (int idle = 0; idle < 3;) {
    while (some.size() < 65536) some += echoCall(serial++, 1000).bytes();
    const std::size_t went = peer.sendWhatFits(some);
    some.erase(0, went);
    taken += went;
    if (went == 0) server.expectOthersAreServed();
    idle = went == 0 ? idle + 1 : 0;
    ASSERT_LT(taken, 16U << 20) << "it is read from without end";
  }
  go_on();
  ASSERT_TRUE(peer.receive());
  // All that was sent whole is answered in the end.
  const auto whole = static_cast<std::uint32_t>(taken / echoCall(2, 1000).bytes().size());
  for (std::uint32_t expected = 2; expected < 2 + whole; ++expected)
    ASSERT_EQ(peer.receive()->reply_serial, expected);
  server.expectOthersAreServed();
}

TEST_P(BackPressure, ADescriptorRightBehindTheHandshakesEndIsTaken) {
  EchoServer server(GetParam());
  std::array<int, 2> pair{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()), 0);
  const FileDescriptor one(pair[0]);
  const FileDescriptor other(pair[1]);
  for (int round = 0; round < 50; ++round) {
    RawPeer peer = server.rawPeer();
    peer.handshake(false);
    server.expectOthersAreServed();
    peer.send("BEGIN\r\n");
    peer.send(openBackCall(1).bytes(), {one.get()});
    ASSERT_EQ(peer.receive()->reply_serial, 1U);
    EXPECT_TRUE(server.echo().lastEndpoint().open());
  }
}

// The kernel shows what is in the socket only up to the bytes that came with a descriptor.
TEST_P(BackPressure, ACallRightBehindOneWithADescriptorIsAnsweredThoughNothingComesAfterIt) {
  EchoServer server(GetParam());
  std::array<int, 2> pair{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()), 0);
  const FileDescriptor one(pair[0]);
  const FileDescriptor other(pair[1]);
  RawPeer peer = server.rawPeer();
  peer.handshake();
  for (std::uint32_t serial = 1; serial < 1000; serial += 2) {
    peer.send(openBackCall(serial).bytes(), {one.get()});
    peer.send(echoCall(serial + 1, 8).bytes());
    ASSERT_EQ(peer.receive()->reply_serial, serial);
    ASSERT_EQ(peer.receive()->reply_serial, serial + 1);
  }
}

}  // namespace
}  // namespace kelvane::tests
