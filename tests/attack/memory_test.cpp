// Peers that make the daemon hold as much as they can.

#include <gtest/gtest.h>
#include <poll.h>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/attack/another_user.h"
#include "tests/attack/attacked_daemon.h"
#include "tests/attack/hostile_service.h"
#include "tests/attack/requests.h"
#include "tests/attack/scale.h"

namespace kelvane::tests {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t megabyte = std::size_t{1} << 20;
constexpr std::size_t nearly_a_megabyte = megabyte - 1024;  // what one value of the state may take

/// Sends the bytes over each connection in turn, as far as the daemon takes them, for the duration of a
/// flood.
void sendToAll(std::vector<RawPeer>& peers, const std::string& bytes) {
  std::vector<std::size_t> sent(peers.size());
  std::vector<pollfd> sockets;
  for (const RawPeer& peer : peers) sockets.push_back({peer.descriptor(), POLLOUT, 0});
  const auto end = Clock::now() + scale.flood;
  while (Clock::now() < end && ::poll(sockets.data(), sockets.size(), 100) >= 0) {  // all that time: it lasts
    for (std::size_t i = 0; i < peers.size(); ++i) {
      if (sockets[i].revents == 0) continue;
      const std::size_t more = peers[i].sendWhatFits(std::string_view(bytes).substr(sent[i]));
      sent[i] += more;
      if (more == 0 || sent[i] == bytes.size()) sockets[i].fd = -1;  // closed, or done
    }
  }
}

/// Writes the state again and again, a few writes ahead of the answers, which are read.
void writeState(RawPeer& peer, const std::function<std::string(std::uint32_t serial)>& key,
                std::size_t bytes) {
  constexpr std::uint32_t ahead = 16;
  const auto end = Clock::now() + scale.flood;
  std::uint32_t answered = 0;
  for (std::uint32_t serial = 1; Clock::now() < end; ++serial) {
    if (!peer.send(setState(serial, key(serial), bytes).bytes())) return;
    if (serial <= ahead) continue;
    if (!peer.receive()) return;
    ++answered;
  }
  std::printf("[  figures ] %u writes of %zu bytes\n", answered, bytes);
}

class Memory : public testing::Test {
 protected:
  AttackedDaemon daemon_;
};

TEST_F(Memory, IsNotTakenByHalfMessages) {
  AnotherUser user(daemon_);
  std::vector<RawPeer> peers;
  for (unsigned i = 0; i < scale.half_messages; ++i) peers.push_back(peerOf(daemon_, attacker));
  const std::string whole = setState(1, "com.example.key", 30 * megabyte).bytes();
  sendToAll(peers, whole.substr(0, 29 * megabyte));
  expectUnharmed(user, daemon_);
}

TEST_F(Memory, IsNotTakenByManySmallWritesWhoseAnswersAreRead) {
  AnotherUser user(daemon_);
  RawPeer peer = peerOf(daemon_, attacker);
  writeState(
      peer, [](std::uint32_t) { return "KELVANE_CACHE_ENABLED"; }, 8);
  expectUnharmed(user, daemon_);
}

TEST_F(Memory, IsNotTakenByLargeWritesWhoseAnswersAreRead) {
  AnotherUser user(daemon_);
  RawPeer peer = peerOf(daemon_, attacker);
  writeState(
      peer, [](std::uint32_t) { return "com.example.key"; }, nearly_a_megabyte);
  expectUnharmed(user, daemon_);
}

TEST_F(Memory, IsNotTakenByWritesAsLargeAsAMessageMayBe) {
  AnotherUser user(daemon_);
  RawPeer peer = peerOf(daemon_, attacker);
  writeState(
      peer, [](std::uint32_t) { return "com.example.key"; }, 31 * megabyte);
  expectUnharmed(user, daemon_);
}

TEST_F(Memory, IsNotTakenByValuesThatNeedMoreOfItThanTheirBytes) {
  AnotherUser user(daemon_);
  constexpr std::size_t bytes = 30 * megabyte;
  RawWriter body;
  body.number(0).signature("ag").number(bytes).raw(
      std::string(bytes, '\0'));  // empty texts of two bytes each
  body.set(0, static_cast<std::uint32_t>(body.size() - 4));
  body.text("com.example.key");
  RawMessage message = request("clientSetState", 1);
  message.signature = "avs";
  message.body = body.take();
  for (unsigned i = 0; i < 3; ++i) {
    RawPeer peer = peerOf(daemon_, attacker);
    peer.send(message.bytes());
    static_cast<void>(peer.receive());
  }
  expectUnharmed(user, daemon_);
}

TEST_F(Memory, IsNotTakenByAnswersThatNobodyReads) {
  RawPeer writer = peerOf(daemon_, attacker);
  writer.send(setState(1, "com.example.key", nearly_a_megabyte).bytes());
  ASSERT_TRUE(writer.receive());
  AnotherUser user(daemon_);
  std::vector<RawPeer> peers;
  std::string questions;
  for (std::uint32_t serial = 1; serial <= 60; ++serial)
    questions += getState(serial, "com.example.key").bytes();
  for (unsigned i = 0; i < 20; ++i) peers.push_back(peerOf(daemon_, attacker));
  sendToAll(peers, questions);
  expectUnharmed(user, daemon_);
}

TEST_F(Memory, IsNotTakenByWritesToEverNewKeys) {
  AnotherUser user(daemon_);
  RawPeer peer = peerOf(daemon_, attacker);
  writeState(
      peer, [](std::uint32_t serial) { return "com.example." + std::to_string(serial); }, megabyte / 4);
  expectUnharmed(user, daemon_);
}

TEST_F(Memory, IsNotTakenByReadingAFullStateAsAWhole) {
  RawPeer writer = peerOf(daemon_, attacker);
  for (std::uint32_t serial = 1; serial <= 20; ++serial) {
    writer.send(setStateToNumbers(serial, "com.example." + std::to_string(serial), 60'000).bytes());
    ASSERT_TRUE(writer.receive());
  }
  AnotherUser user(daemon_);
  RawPeer peer = peerOf(daemon_, attacker);
  const auto end = Clock::now() + scale.flood;
  constexpr std::uint32_t ahead = 16;
  std::size_t answered = 0;
  std::size_t bytes = 0;
  for (std::uint32_t serial = 1; Clock::now() < end; ++serial) {
    ASSERT_TRUE(peer.send(getState(serial, "KELVANE_USER_DEFAULTS").bytes()));
    if (serial <= ahead) continue;
    const auto reply = peer.receive();
    ASSERT_TRUE(reply);
    ++answered;
    bytes = std::max(bytes, reply->bytes.size());
  }
  std::printf("[  figures ] %zu answers of at most %zu bytes\n", answered, bytes);
  expectUnharmed(user, daemon_);
}

TEST_F(Memory, IsNotTakenByWhatServicesWantToBeNotifiedOf) {
  ManyServices services;
  AnotherUser user(daemon_);
  RawPeer peer = peerOf(daemon_, attacker);
  const std::string name(megabyte, 'n');
  const auto end = Clock::now() + scale.flood;
  for (std::uint32_t serial = 1; Clock::now() < end && serial < 400; ++serial) {
    peer.send(checkIn(serial, "com.example." + std::to_string(serial), name).bytes(), {services.endpoint()});
    ASSERT_TRUE(peer.receive());
  }
  expectUnharmed(user, daemon_);
}

TEST_F(Memory, IsNotTakenByNotificationsToAServiceThatReadsNone) {
  RawService service;
  RawPeer peer = peerOf(daemon_, attacker);
  peer.send(checkIn(1, "com.example.deaf", "KELVANE_CACHE_ENABLED").bytes(), {service.endpoint()});
  service.forgetEndpoint();
  const auto kept = service.nextAnsweredConnection();
  ASSERT_TRUE(kept);
  ASSERT_TRUE(peer.receive());
  AnotherUser user(daemon_);
  RawPeer writer = peerOf(daemon_, attacker);
  writeState(
      writer, [](std::uint32_t) { return "KELVANE_CACHE_ENABLED"; }, nearly_a_megabyte);
  expectUnharmed(user, daemon_);
}

TEST_F(Memory, IsNotTakenByAServiceThatStreamsReplies) {
  RawService service;
  RawPeer peer = peerOf(daemon_, attacker);
  peer.send(checkIn(1, "com.example.endless").bytes(), {service.endpoint()});
  service.forgetEndpoint();
  auto kept = service.nextAnsweredConnection();
  ASSERT_TRUE(kept);
  ASSERT_TRUE(peer.receive());
  AnotherUser user(daemon_);
  RawMessage reply = emptyReply(2, 1);
  reply.signature = "ay";
  reply.body = RawWriter().number(megabyte).raw(std::string(megabyte, 'x')).take();
  const std::string bytes = reply.bytes();
  const auto end = Clock::now() + scale.flood;
  while (Clock::now() < end && kept->send(bytes)) {
  }
  expectUnharmed(user, daemon_);
}

}  // namespace
}  // namespace kelvane::tests
