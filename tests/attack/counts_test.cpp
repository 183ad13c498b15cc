// Peers that exceed a limit of one user.

#include <gtest/gtest.h>
#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "platform/wire/account.h"
#include "tests/attack/another_user.h"
#include "tests/attack/attacked_daemon.h"
#include "tests/attack/hostile_service.h"
#include "tests/attack/requests.h"
#include "tests/attack/scale.h"

namespace kelvane::tests {
namespace {

constexpr const char* limits_exceeded = "org.freedesktop.DBus.Error.LimitsExceeded";

bool isRefusal(const RawReply& reply) {
  return reply.type == 3 && reply.bytes.find(limits_exceeded) != std::string::npos;
}

class Counts : public testing::Test {
 protected:
  static constexpr std::size_t a_few = 32;  // of other users, and the daemon's own for what it does meanwhile

  static void SetUpTestSuite() { ASSERT_GT(raiseDescriptorLimit(), scale.connections + 1'000); }

  /// What the daemon answers to the check-in of a service with that ID.
  RawReply answerTo(uid_t user, const std::string& ID) {
    ManyServices services;
    RawPeer peer = peerOf(daemon_, user);
    peer.send(checkIn(1, ID).bytes(), {services.endpoint()});
    auto reply = peer.receive();
    return reply ? *reply : RawReply();
  }

  AttackedDaemon daemon_;
  const std::size_t before_ = daemon_.descriptors();
};

TEST_F(Counts, OfConnectionsAreBoundedForOneUser) {
  {
    AnotherUser user(daemon_);
    std::vector<FileDescriptor> sockets;
    for (unsigned i = 0; i < scale.connections; ++i)
      sockets.push_back(connectedAs(attacker, daemon_.socket()));
    const std::size_t open = daemon_.descriptors();
    const std::size_t most = wire::ordinaryLimits()[static_cast<std::size_t>(wire::Resource::connections)];
    EXPECT_LE(open, before_ + most + a_few);
    RawPeer newcomer = peerOf(daemon_, bystander);
    newcomer.send(getState(1, "com.example.key").bytes());
    EXPECT_TRUE(newcomer.receive());
    expectUnharmed(user, daemon_);
  }
  EXPECT_EQ(daemon_.descriptorsWhenSettled(before_), before_);
}

TEST_F(Counts, OfServicesAreBoundedForOneUserAndTheRestIsRefusedWithAReason) {
  unsigned registered = 0;
  {
    ManyServices services;
    AnotherUser user(daemon_);
    RawPeer peer = peerOf(daemon_, attacker);
    std::thread sender([&] {
      for (unsigned i = 1; i <= scale.check_ins; ++i) {
        if (!peer.send(checkIn(i, "com.example." + std::to_string(i)).bytes(), {services.endpoint()})) return;
      }
    });
    unsigned refused = 0;
    for (unsigned i = 0; i < scale.check_ins; ++i) {
      const auto reply = peer.receive();
      if (!reply) break;
      ++(reply->type == 2 ? registered : refused);
      if (reply->type == 3) {
        EXPECT_TRUE(isRefusal(*reply)) << reply->bytes;
        EXPECT_NE(reply->bytes.find("services"), std::string::npos) << reply->bytes;
      }
    }
    sender.join();
    std::printf("[  figures ] %u services registered, %u refused\n", registered, refused);
    EXPECT_EQ(registered + refused, scale.check_ins);
    EXPECT_GT(registered, 0U);
    EXPECT_GT(refused, 0U);
    EXPECT_EQ(answerTo(bystander, "com.example.another").type, 2);
    expectUnharmed(user, daemon_);
  }
  EXPECT_EQ(daemon_.descriptorsWhenSettled(before_), before_);
  EXPECT_EQ(answerTo(attacker, "com.example.after").type, 2);
}

TEST_F(Counts, OfCallsThatWaitDoNotHoldUpAnotherUser) {
  // The registry waits for a service that does not answer its ping, and so do its callers.
  RawService mute;
  RawPeer registrar = peerOf(daemon_, attacker);
  registrar.send(checkIn(1, "com.example.mute").bytes(), {mute.endpoint()});
  const auto kept = mute.nextConnection();
  ASSERT_TRUE(kept);
  AnotherUser user(daemon_);
  RawMessage cancel = request("clientCancelPurge", 1);
  cancel.signature = "a{sv}";
  cancel.body = RawWriter().number(0).align(8).take();
  std::vector<RawPeer> waiting;
  for (unsigned i = 0; i < scale.waiting_calls; ++i) {
    waiting.emplace_back(connectedAs(attacker, daemon_.socket()));
    waiting.back().send(authentication(attacker) + "BEGIN\r\n" + cancel.bytes());  // waits for nothing
  }
  expectUnharmed(user, daemon_);
}

TEST_F(Counts, OfAnIDsBytesEndAt255) {
  AnotherUser user(daemon_);
  EXPECT_EQ(answerTo(attacker, std::string(255, 'x')).type, 2);
  for (const std::size_t bytes : {std::size_t{256}, std::size_t{16} << 20}) {
    const RawReply reply = answerTo(attacker, std::string(bytes, 'x'));
    EXPECT_TRUE(isRefusal(reply)) << bytes;
    EXPECT_NE(reply.bytes.find("at most 255"), std::string::npos) << bytes;
  }
  expectUnharmed(user, daemon_);
  EXPECT_EQ(daemon_.descriptorsWhenSettled(before_ + 1), before_ + 1);  // the other user's connection
}

}  // namespace
}  // namespace kelvane::tests
