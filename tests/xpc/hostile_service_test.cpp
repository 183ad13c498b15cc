// The far side of a connection that this process opens may be as hostile as one that comes to it.

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <array>
#include <cstring>
#include <thread>

#include "platform/dispatch/manual_clock.h"
#include "tests/xpc/echo.h"
#include "tests/xpc/raw_peer.h"

namespace kelvane::tests {
namespace {

constexpr std::uint64_t second = 1'000'000'000;

FileDescriptor receiveDescriptor(int socket) {
  char byte = 0;
  iovec data{&byte, 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  if (::recvmsg(socket, &message, MSG_CMSG_CLOEXEC) != 1) return {};
  int descriptor = -1;
  std::memcpy(&descriptor, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof descriptor);
  return FileDescriptor(descriptor);
}

class HostileService : public testing::Test {
 protected:
  HostileService() {
    std::array<int, 2> pair{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()), 0);
    const FileDescriptor far(pair[1]);
    connection_ = xpc::Connection::initWithListenerEndpoint(*xpc::Endpoint::adopt(FileDescriptor(pair[0])));
    connection_->setInterruptionHandler([this] { interrupted_(); });
    connection_->resume();
    remote_ = connection_->remoteObjectProxyWithErrorHandler<EchoProtocol>([this](const xpc::Error& error) {
      error_ = error;
      answered_();
    });
    remote_->greet("you", [this](std::string reply) {
      reply_ = std::move(reply);
      answered_();
    });
    service_.emplace(receiveDescriptor(far.get()));
  }
  ~HostileService() override {
    connection_->invalidate();
    dispatch_sync(connection_->queue(), [] {});
  }
  void handshake() {
    for (int line = 0; line < 3; ++line) service_->readLine();
    service_->send("OK 00112233445566778899aabbccddeeff\r\nAGREE_UNIX_FD\r\n");
    ASSERT_TRUE(service_->receive());  // the call
  }
  static RawMessage replyTo(std::uint32_t serial, const std::string& text) {
    RawMessage message;
    message.type = 2;
    message.serial = serial;
    message.reply_serial = serial;
    message.signature = "s";
    message.body = RawWriter().text(text).take();
    return message;
  }
  /// The connection goes on with a second call, which is answered after so much time.
  void expectToGoOn(std::uint64_t nanoseconds = 0) {
    remote_->greet("again", [this](std::string reply) {
      reply_ = std::move(reply);
      answered_();
    });
    ASSERT_TRUE(service_->receive());
    clock_.advance(nanoseconds);
    service_->send(replyTo(2, "second").bytes());
    answered_.wait();
    EXPECT_EQ(reply_, "second");
  }

  ManualClock clock_;
  std::shared_ptr<xpc::Connection> connection_;
  std::optional<RawPeer> service_;
  std::shared_ptr<EchoProtocol> remote_;
  std::string reply_;
  std::optional<xpc::Error> error_;
  Signal answered_;
  Signal interrupted_;
};

TEST_F(HostileService, AReplyByBytesArrives) {
  handshake();
  service_->send(replyTo(1, "first").bytes());
  answered_.wait();
  EXPECT_EQ(reply_, "first");
  expectToGoOn();
}

TEST_F(HostileService, AnErrorReplyCallsTheErrorHandlerWithItsNameAndText) {
  handshake();
  RawMessage message = replyTo(1, "because");
  message.type = 3;
  message.error_name = "org.example.Refused";
  service_->send(message.bytes());
  answered_.wait();
  ASSERT_TRUE(error_);
  EXPECT_EQ(error_->name, "org.example.Refused");
  EXPECT_EQ(error_->message, "because");
  expectToGoOn();
}

TEST_F(HostileService, AReplyWithAnotherSignatureIsAnErrorOfItsCallOnly) {
  handshake();
  RawMessage message = replyTo(1, "");
  message.signature = "u";
  message.body = RawWriter().number(5).take();
  service_->send(message.bytes());
  answered_.wait();
  ASSERT_TRUE(error_);
  EXPECT_EQ(error_->name, xpc::error_invalid_arguments);
  expectToGoOn();
}

TEST_F(HostileService, AReplyThatContradictsItsSignatureInterrupts) {
  handshake();
  RawMessage message = replyTo(1, "");
  message.body = RawWriter().number(500).take();
  service_->send(message.bytes());
  interrupted_.wait();
  answered_.wait();
  EXPECT_EQ(error_->name, xpc::error_disconnected);
}

TEST_F(HostileService, ASecondReplyToOneCallIsIgnored) {
  handshake();
  service_->send(replyTo(1, "first").bytes() + replyTo(1, "once more").bytes());
  answered_.wait();
  EXPECT_EQ(reply_, "first");
  expectToGoOn();
}

TEST_F(HostileService, AnErrorForACallThatHasItsReplyIsIgnored) {
  handshake();
  RawMessage error = replyTo(1, "after all not");
  error.type = 3;
  error.error_name = "org.example.Refused";
  service_->send(replyTo(1, "first").bytes() + error.bytes());
  answered_.wait();
  EXPECT_EQ(reply_, "first");
  expectToGoOn();
  EXPECT_FALSE(error_);
}

TEST_F(HostileService, AReplyToASerialThatWasNotSentIsIgnored) {
  handshake();
  RawMessage error = replyTo(2, "too early");
  error.type = 3;
  error.error_name = "org.example.Refused";
  service_->send(replyTo(2, "too early").bytes() + error.bytes() + replyTo(0xFFFFFFFF, "never").bytes() +
                 replyTo(1, "first").bytes());
  answered_.wait();
  EXPECT_EQ(reply_, "first");
  expectToGoOn();
  EXPECT_FALSE(error_);
}

TEST_F(HostileService, RepliesInAnotherOrderReachTheirOwnCalls) {
  handshake();
  std::vector<std::string> replies;
  for (const char* const name : {"2", "3", "4"}) {
    remote_->greet(name, [this, &replies, name](const std::string& reply) {
      replies.push_back(name + (" got " + reply));
      answered_();
    });
    ASSERT_TRUE(service_->receive());
  }
  service_->send(replyTo(4, "fourth").bytes() + replyTo(2, "second").bytes());
  service_->send(replyTo(1, "first").bytes() + replyTo(3, "third").bytes());
  for (int i = 0; i < 4; ++i) answered_.wait();
  EXPECT_EQ(reply_, "first");
  EXPECT_EQ(replies, (std::vector<std::string>{"4 got fourth", "2 got second", "3 got third"}));
}

TEST_F(HostileService, AReplyInTheSamePacketAsTheHandshakesEndArrives) {
  for (int line = 0; line < 3; ++line) service_->readLine();
  service_->send("OK 00112233445566778899aabbccddeeff\r\n");
  service_->send("AGREE_UNIX_FD\r\n" + replyTo(7, "to nothing").bytes());
  ASSERT_TRUE(service_->receive());
  service_->send(replyTo(1, "first").bytes());
  answered_.wait();
  EXPECT_EQ(reply_, "first") << (error_ ? error_->description() : "");
}

TEST_F(HostileService, ACallInTheSamePacketAsTheHandshakesEndIsAnsweredWithoutWaitingForTheReply) {
  for (int line = 0; line < 3; ++line) service_->readLine();
  service_->send("OK 00112233445566778899aabbccddeeff\r\n");
  service_->send("AGREE_UNIX_FD\r\n" + echoCall(9, 8).bytes());
  ASSERT_TRUE(service_->receive());  // the connection's own call
  const auto refusal = service_->receive();
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->type, 3);
  service_->send(replyTo(1, "first").bytes());
  answered_.wait();
  EXPECT_EQ(reply_, "first") << (error_ ? error_->description() : "");
}

TEST_F(HostileService, ACallToAConnectionThatExportsNothingIsAnswered) {
  handshake();
  service_->send(echoCall(9, 8).bytes() + replyTo(1, "first").bytes());
  answered_.wait();
  const auto refusal = service_->receive();
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->type, 3);
}

TEST_F(HostileService, AServiceThatNeverAnswersTheHandshakeIsGivenUpAfterFiveSeconds) {
  clock_.awaitWaiterFor(5 * second);
  clock_.advance(5 * second - 1);
  clock_.advance(1);
  interrupted_.wait();
  answered_.wait();
  EXPECT_EQ(error_->name, xpc::error_disconnected);
}

TEST_F(HostileService, AServiceThatNeverRepliesIsWaitedForAsLongAsItLives) {
  handshake();
  service_->send(replyTo(1, "first").bytes());
  answered_.wait();
  expectToGoOn(1000 * second);
  remote_->never([] { FAIL(); });
  service_->close();
  answered_.wait();
  EXPECT_EQ(error_->name, xpc::error_disconnected);
}

TEST_F(HostileService, GarbageInsteadOfTheHandshakeInterrupts) {
  service_->send("what?\r\nnever heard of it\r\n\r\n");
  interrupted_.wait();
  answered_.wait();
  EXPECT_EQ(error_->name, xpc::error_disconnected);
}

TEST_F(HostileService, AnOversizedReplyInterrupts) {
  handshake();
  service_->send(headerClaiming(33U << 20));
  interrupted_.wait();
  answered_.wait();
  EXPECT_EQ(error_->name, xpc::error_disconnected);
}

TEST_F(HostileService, HalfAReplyInterruptsAfterTenSeconds) {
  handshake();
  service_->send(replyTo(1, "first").bytes().substr(0, 30));
  clock_.awaitWaiterFor(10 * second);
  clock_.advance(10 * second);
  interrupted_.wait();
  answered_.wait();
  EXPECT_TRUE(error_);
}

TEST_F(HostileService, DeathBeforeTheHandshakeInterrupts) {
  service_->close();
  interrupted_.wait();
  answered_.wait();
  EXPECT_TRUE(error_);
}

/// Until the other end has taken all that this one sent.
void awaitTaken(const RawPeer& peer) {
  int waiting = 1;
  while (::ioctl(peer.descriptor(), SIOCOUTQ, &waiting) == 0 && waiting > 0) std::this_thread::yield();
}

TEST_F(HostileService, AReplyIsPaidByTheServicesUserUntilItHasBeenDelivered) {
  constexpr std::size_t size = std::size_t{1} << 20;
  handshake();
  const auto used = [&] { return connection_->account()->used(wire::Resource::received_bytes); };
  dispatch_suspend(connection_->queue());
  service_->send(replyTo(1, std::string(size, 'x')).bytes());
  awaitTaken(*service_);
  service_->send(replyTo(99, "to no call").bytes());  // read after the reply was handled
  awaitTaken(*service_);
  EXPECT_GE(used(), size);
  dispatch_resume(connection_->queue());
  answered_.wait();
  while (used() != 0) std::this_thread::yield();
}

TEST_F(HostileService, WhatAReplyBecomesIsPaidByTheServicesUserToo) {
  constexpr int texts = 10'000;
  handshake();
  remote_->echo({}, [this](const std::optional<Dictionary>& /*reply*/) { answered_(); });
  ASSERT_TRUE(service_->receive());
  RawWriter body;
  body.number(0).number(0).align(8).text("k").signature("as").number(0);
  const std::size_t texts_at = body.size();
  for (int i = 0; i < texts; ++i) body.text("");
  body.set(texts_at - 4, static_cast<std::uint32_t>(body.size() - texts_at));
  body.set(4, static_cast<std::uint32_t>(body.size() - 8));
  body.set(0, static_cast<std::uint32_t>(body.size() - 4));
  RawMessage reply = replyTo(2, "");
  reply.signature = "aa{sv}";
  reply.body = body.take();
  const std::size_t size = reply.body.size();
  const auto used = [&] { return connection_->account()->used(wire::Resource::received_bytes); };
  dispatch_suspend(connection_->queue());
  service_->send(reply.bytes());
  awaitTaken(*service_);
  service_->send(replyTo(99, "to no call").bytes());  // read after the reply was handled
  awaitTaken(*service_);
  EXPECT_GE(used(), size + texts * sizeof(Value));
  dispatch_resume(connection_->queue());
  answered_.wait();
  while (used() != 0) std::this_thread::yield();
  EXPECT_FALSE(error_) << error_->description();
}

}  // namespace
}  // namespace kelvane::tests
