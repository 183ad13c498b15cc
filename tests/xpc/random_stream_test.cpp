#include <random>

#include "tests/xpc/descriptors.h"
#include "tests/xpc/echo_server.h"

namespace kelvane::tests {
namespace {

/// Valid streams, from the first byte of the handshake on.
std::vector<std::string> validStreams() {
  RawMessage ping;
  ping.interface = "org.freedesktop.DBus.Peer";
  ping.member = "Ping";
  RawMessage hello;
  hello.path = "/org/freedesktop/DBus";
  hello.interface = "org.freedesktop.DBus";
  hello.member = "Hello";
  RawMessage reply;
  reply.type = 2;
  reply.serial = 4;
  reply.reply_serial = 9;
  RawMessage get;
  get.interface = "org.freedesktop.DBus.Properties";
  get.member = "GetAll";
  get.signature = "s";
  get.body = RawWriter().text("test.Echo").take();
  const std::string nested = echoCallOf(2, "av", [](RawWriter& out) {
                               out.number(18).signature("s").text("inner").signature("y").raw("\1");
                             }).bytes();
  const std::string begin = RawPeer::firstLine() + "NEGOTIATE_UNIX_FD\r\nBEGIN\r\n";
  return {begin + echoCall(1, 40).bytes() + nested + ping.bytes(),
          begin + hello.bytes() + echoCall(2, 300).bytes() + reply.bytes() + echoCall(3, 8).bytes(),
          begin + get.bytes() + nested + echoCall(5, 8).bytes()};
}

class Mutator {
 public:
  explicit Mutator(std::uint32_t seed) : random_(seed) {}

  std::size_t below(std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_);
  }

  void mutate(std::string& stream) {
    // Half of them behind the handshake, or little would come so far.
    const std::size_t messages =
        stream.find("BEGIN\r\n") == std::string::npos ? 0 : stream.find("BEGIN\r\n") + 7;
    const std::size_t from = below(8) == 0 || messages >= stream.size() ? 0 : messages;
    if (stream.size() <= from + 8) return;
    const std::size_t at = from + below(stream.size() - from - 4);
    switch (below(6)) {
      case 0:
        stream[at] = static_cast<char>(stream[at] ^ (1 << below(8)));
        break;
      case 1:
        stream[at] = static_cast<char>(below(256));
        break;
      case 2:
        stream.erase(at, 1 + below(16));
        break;
      case 3:
        stream.insert(at, stream, below(stream.size()), 1 + below(40));
        break;
      case 4:
        stream.resize(at);
        break;
      default:
        for (std::size_t i = 0; i < 4; ++i)
          stream[at + i] = "\xFF\xFF\xFF\x7F\0\0\0\0\0\0\0\1"[4 * below(3) + i];
    }
  }

 private:
  std::mt19937 random_;
};

TEST(RandomStreams, TwentyThousandMutationsCostTheirOwnConnectionsOnly) {
  constexpr int mutations = 20'000;
  constexpr int at_a_time = 50;
  EchoServer server(Door::endpoint);
  server.expectOthersAreServed();
  const std::size_t descriptors = openDescriptors();
  const std::vector<std::string> streams = validStreams();
  Mutator mutator(20'000);
  int mutated = 0;
  for (int round = 0; mutated < mutations; ++round) {
    for (int i = 0; i < at_a_time; ++i) {
      std::string stream = streams[mutator.below(streams.size())];
      const std::size_t changes = 1 + mutator.below(4);
      for (std::size_t m = 0; m < changes; ++m) mutator.mutate(stream);
      mutated += static_cast<int>(changes);
      RawPeer peer = server.rawPeer();
      // In two pieces, as often as not.
      const std::size_t cut = mutator.below(2) == 0 ? stream.size() : mutator.below(stream.size() + 1);
      if (peer.send(stream.substr(0, cut))) peer.send(stream.substr(cut));
      // Half of them wait for what comes of it, the others are gone.
      if (i % 2 == 0) {
        peer.stopSending();
        peer.awaitEnd();
      }
    }
    for (int i = 0; i < at_a_time; ++i) server.awaitAnEnd();
    if (round % 10 == 0) server.expectOthersAreServed();
  }
  // Some came through, or the streams were not worth mutating.
  EXPECT_GT(server.echo().text_calls, 500);
  server.expectOthersAreServed();
  EXPECT_EQ(openDescriptors(), descriptors);
}

}  // namespace
}  // namespace kelvane::tests
