// Peers that pass unexpected file descriptors. All received descriptors must be closed.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

#include "tests/attack/another_user.h"
#include "tests/attack/attacked_daemon.h"
#include "tests/attack/hostile_service.h"
#include "tests/attack/requests.h"

namespace kelvane::tests {
namespace {

constexpr std::size_t passed = 250;
constexpr unsigned times = 8;

/// To be passed many times in one message.
class ManyDescriptors {
 public:
  [[nodiscard]] const std::vector<int>& all() const { return all_; }

 private:
  FileDescriptor null_{::open("/dev/null", O_RDWR | O_CLOEXEC)};
  std::vector<int> all_ = std::vector<int>(passed, null_.get());
};

class Descriptors : public testing::Test {
 protected:
  void expectNothingIsLeft() { EXPECT_EQ(daemon_.descriptorsWhenSettled(before_), before_); }

  AttackedDaemon daemon_;
  const std::size_t before_ = daemon_.descriptors();
  const ManyDescriptors many_{};
};

TEST_F(Descriptors, InAMessageWithoutTheFieldAreClosed) {
  {
    AnotherUser user(daemon_);
    for (unsigned i = 0; i < times; ++i) {
      RawPeer peer = peerOf(daemon_, attacker);
      peer.send(getState(1, "com.example.key").bytes(), many_.all());
      static_cast<void>(peer.receive());  // an answer, or the end
    }
    expectUnharmed(user, daemon_);
  }
  expectNothingIsLeft();
}

TEST_F(Descriptors, MoreThanTheFieldNamesAreClosed) {
  {
    AnotherUser user(daemon_);
    for (unsigned i = 0; i < times; ++i) {
      RawPeer peer = peerOf(daemon_, attacker);
      RawMessage message = getState(1, "com.example.key");
      message.descriptors = 1;
      peer.send(message.bytes(), many_.all());
      static_cast<void>(peer.receive());
    }
    expectUnharmed(user, daemon_);
  }
  expectNothingIsLeft();
}

TEST_F(Descriptors, ThatTheFieldNamesAndTheMethodDoesNotTakeAreClosed) {
  {
    AnotherUser user(daemon_);
    for (unsigned i = 0; i < times; ++i) {
      RawPeer peer = peerOf(daemon_, attacker);
      RawMessage message = getState(1, "com.example.key");
      message.descriptors = passed;
      peer.send(message.bytes(), many_.all());
      static_cast<void>(peer.receive());
    }
    expectUnharmed(user, daemon_);
  }
  expectNothingIsLeft();
}

TEST_F(Descriptors, WithTheHandshakeAreClosed) {
  {
    AnotherUser user(daemon_);
    for (unsigned i = 0; i < times; ++i) {
      RawPeer first(connectedAs(attacker, daemon_.socket()));
      first.send(authentication(attacker), many_.all());
      static_cast<void>(first.readLine());
      RawPeer last(connectedAs(attacker, daemon_.socket()));
      last.send(authentication(attacker));
      static_cast<void>(last.readLine());
      last.send("NEGOTIATE_UNIX_FD\r\n", many_.all());
      static_cast<void>(last.readLine());
      last.send("BEGIN\r\n" + getState(1, "com.example.key").bytes(), many_.all());
      static_cast<void>(last.receive());
    }
    expectUnharmed(user, daemon_);
  }
  expectNothingIsLeft();
}

TEST_F(Descriptors, InAReplyAreClosed) {
  {
    AnotherUser user(daemon_);
    for (unsigned i = 0; i < times; ++i) {
      RawService service;
      RawPeer peer = peerOf(daemon_, attacker);
      peer.send(checkIn(1, "com.example.service" + std::to_string(i)).bytes(), {service.endpoint()});
      service.forgetEndpoint();
      auto connection = service.nextConnection();
      ASSERT_TRUE(connection);
      ASSERT_TRUE(connection->receive());  // the ping
      connection->send(emptyReply(1, 1).bytes(), many_.all());
      static_cast<void>(peer.receive());
    }
    expectUnharmed(user, daemon_);
  }
  expectNothingIsLeft();
}

}  // namespace
}  // namespace kelvane::tests
