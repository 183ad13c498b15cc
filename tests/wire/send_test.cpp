#include <gmock/gmock.h>

#include "tests/wire/system_call_faults.h"
#include "tests/wire/transport_fixture.h"

namespace kelvane::wire {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// How many a program that is started would get.
int inheritedDescriptors() {
  int count = 0;
  for (int number = 0; number < 1024; ++number) count += ::fcntl(number, F_GETFD) == 0 ? 1 : 0;
  return count;
}

class SendTest : public TransportTest {
 protected:
  std::uint32_t send(std::string_view member, std::string_view text = "", std::span<const int> named = {}) {
    Outgoing message = makeCall(member, text, named);
    return transport_->send(message, error_);
  }
  /// Until the socket takes no more.
  void fillSocket() {
    while (transport_->queuedBytes() == 0) ASSERT_NE(send("Filling", std::string(10'000, 'x')), 0U);
  }
  /// Fills the socket with bytes that do not come from the transport. They end in "n".
  void fillSocketFromOutside() {
    const std::string noise(1'000, 'n');
    while (::send(transport_->socket(), noise.data(), noise.size(), MSG_DONTWAIT) > 0) {
    }
  }
  /// What the peer receives while it reads and we continue to write.
  std::string readAllFlushing() {
    std::string all;
    for (;;) {
      const std::string some = readFrom(peer_.get());
      all += some;
      EXPECT_TRUE(transport_->flush());
      if (some.empty()) return all;
    }
  }
  void answerHandshake(bool agrees = true) {
    passTo(peer_.get(), "OK 0123456789abcdef0123456789abcdef\r\n" +
                            std::string(agrees ? "AGREE_UNIX_FD\r\n" : "ERROR\r\n"));
  }
  /// What came in one read.
  std::string readOnce(std::vector<FileDescriptor>& descriptors) {
    std::vector<std::byte> buffer(1U << 20);
    const ReadResult result = readSocket(peer_.get(), buffer, 100, descriptors);
    return {reinterpret_cast<const char*>(buffer.data()), result.bytes};
  }

  /// Everything that arrives while we continue to write.
  std::string readAllFlushing(std::vector<FileDescriptor>& descriptors) {
    std::string all;
    for (;;) {
      const std::string some = readOnce(descriptors);
      all += some;
      EXPECT_TRUE(transport_->flush());
      if (some.empty()) return all;
    }
  }

  int error_ = -1;
};

TEST_F(SendTest, ClientSendsHandshakeAndFirstMessageInOneWrite) {
  std::array<int, 2> packets{};  // keeps the boundaries between writes
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, packets.data()), 0);
  ours_ = FileDescriptor(packets[0]);
  peer_ = FileDescriptor(packets[1]);
  makeTransport(Transport::Side::client, {.takes_descriptors = false, .passes_descriptors = false});
  Outgoing call = makeCall("First");
  int error = -1;
  EXPECT_EQ(transport_->send(call, error), 1U);
  EXPECT_EQ(error, 0);
  std::array<char, 4096> buffer{};
  const ssize_t count = ::recv(peer_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
  EXPECT_EQ(std::string(buffer.data(), static_cast<std::size_t>(count)), opening(false) + bytesOf(call));
  EXPECT_THAT(readFrom(peer_.get()), IsEmpty());
}

TEST_F(SendTest, ClientWithNothingToSayStartsItsHandshakeAlone) {
  makeTransport(Transport::Side::client);
  EXPECT_FALSE(transport_->wantsToWrite());
  EXPECT_THAT(readFrom(peer_.get()), IsEmpty());
  transport_->startHandshake();
  EXPECT_EQ(readFrom(peer_.get()), opening());
  answerHandshake();
  EXPECT_EQ(receive(), Outcome::drained);
  EXPECT_TRUE(transport_->isEstablished());
  EXPECT_EQ(send("One"), 1U);
  EXPECT_EQ(readFrom(peer_.get()), callBytes("One"));
}

TEST_F(SendTest, ClientThatTakesOrPassesDescriptorsAsksForThem) {
  for (const bool takes : {true, false}) {
    for (const bool passes : {true, false}) {
      std::tie(ours_, peer_) = socketPair();
      makeTransport(Transport::Side::client, {.takes_descriptors = takes, .passes_descriptors = passes});
      transport_->startHandshake();
      EXPECT_EQ(readFrom(peer_.get()), opening(takes || passes)) << takes << passes;
    }
  }
}

TEST_F(SendTest, EmptyMessageIsRefused) {
  makeServer();
  Outgoing empty;
  EXPECT_EQ(transport_->send(empty, error_), 0U);
  EXPECT_EQ(error_, EINVAL);
  EXPECT_EQ(send("Next"), 1U);
}

TEST_F(SendTest, NothingIsSentOnceThePeerHasBrokenTheRules) {
  makeServer();
  passTo(peer_.get(), "this does not begin a message");
  ASSERT_EQ(receive(), Outcome::ended);
  EXPECT_EQ(send("One"), 0U);
  EXPECT_EQ(error_, EPIPE);
  EXPECT_THAT(readFrom(peer_.get()), IsEmpty());
}

TEST_F(SendTest, PeerThatIsGoneDuringTheHandshakeIsReported) {
  makeTransport(Transport::Side::server);
  passTo(peer_.get(), std::string(1, '\0') + "AUTH EXTERNAL\r\n");
  peer_.reset();
  ASSERT_EQ(receive(), Outcome::drained);
  EXPECT_EQ(send("One"), 0U);
  EXPECT_EQ(error_, EPIPE);
  EXPECT_EQ(transport_->queuedBytes(), 0U);
}

TEST_F(SendTest, ErrorsOfTheSystemCallThatMeanThatThePeerIsGoneAreReportedAlike) {
  for (const int error : {EPIPE, ECONNRESET}) {
    std::tie(ours_, peer_) = socketPair();
    makeServer();
    const SystemCallFault fault("sendmsg", error, 1);
    EXPECT_EQ(send("One"), 0U);
    EXPECT_EQ(error_, EPIPE);
    EXPECT_EQ(send("Two"), 0U) << "though the system call would succeed";
    EXPECT_EQ(error_, EPIPE);
  }
}

TEST_F(SendTest, OtherErrorsOfTheSystemCallCostTheMessageOnly) {
  makeServer();
  {
    const SystemCallFault fault("sendmsg", ETOOMANYREFS, 1);
    EXPECT_EQ(send("One"), 0U);
    EXPECT_EQ(error_, ETOOMANYREFS);
  }
  EXPECT_NE(send("Two"), 0U);
  EXPECT_THAT(readFrom(peer_.get()), testing::HasSubstr("Two"));
}

TEST_F(SendTest, QueueThatTheSystemCallRefusesEndsTheOutput) {
  makeServer();
  fillSocket();
  const SystemCallFault fault("sendmsg", ETOOMANYREFS, 1);
  EXPECT_FALSE(transport_->flush());
  EXPECT_EQ(transport_->queuedBytes(), 0U);
  EXPECT_EQ(send("One"), 0U);
  EXPECT_EQ(error_, EPIPE);
}

TEST_F(SendTest, InvalidDescriptorThatMustWaitIsReportedToo) {
  makeServer();
  fillSocket();
  const std::uint64_t queued = transport_->queuedBytes();
  Outgoing message = makeCall("With", "", std::array<int, 1>{0});
  message.descriptors = {-1};
  EXPECT_EQ(transport_->send(message, error_), 0U);
  EXPECT_EQ(error_, EBADF);
  EXPECT_EQ(transport_->queuedBytes(), queued);
  EXPECT_EQ(account_->used(Resource::descriptors), 0U);
}

TEST_F(SendTest, SerialIsNeverZero) {
  makeServer();
  transport_->setLastSerial(UINT32_MAX - 1);
  EXPECT_EQ(send("One"), UINT32_MAX);
  EXPECT_EQ(send("Two"), 1U);
  EXPECT_EQ(readFrom(peer_.get()), callBytes("One", "", {}, UINT32_MAX) + callBytes("Two", "", {}, 1));
}

TEST_F(SendTest, WhatTheSocketDoesNotTakeIsKeptInOrder) {
  makeServer();
  fillSocket();
  std::uint32_t last = 0;
  for (int i = 0; i < 50; ++i) last = send("Small", std::to_string(i));
  ASSERT_NE(send("Long", std::string(300'000, 'y')), 0U);
  ASSERT_NE(send("Behind", "text"), 0U);
  EXPECT_TRUE(transport_->wantsToWrite());
  EXPECT_GE(account_->used(Resource::queued_bytes), transport_->queuedBytes());
  const std::string all = readAllFlushing();
  EXPECT_FALSE(transport_->wantsToWrite());
  EXPECT_EQ(transport_->queuedBytes(), 0U);
  EXPECT_EQ(account_->used(Resource::queued_bytes), 0U);
  std::string expected;
  for (std::uint32_t i = 1; i <= last - 50; ++i)
    expected += callBytes("Filling", std::string(10'000, 'x'), {}, i);
  for (std::uint32_t i = 0; i < 50; ++i) expected += callBytes("Small", std::to_string(i), {}, last - 49 + i);
  expected += callBytes("Long", std::string(300'000, 'y'), {}, last + 1);
  expected += callBytes("Behind", "text", {}, last + 2);
  EXPECT_TRUE(all == expected) << all.size() << " of " << expected.size();
}

TEST_F(SendTest, LongMessageIsSentInParts) {
  makeServer();
  EXPECT_EQ(send("Long", std::string(900'000, 'y')), 1U);
  EXPECT_GT(transport_->queuedBytes(), 0U);
  EXPECT_LT(account_->used(Resource::queued_bytes), transport_->queuedBytes() + 300)
      << "what went is not charged";
  EXPECT_TRUE(readAllFlushing() == callBytes("Long", std::string(900'000, 'y')));
}

TEST_F(SendTest, SmallMessagesThatWaitShareTheCost) {
  makeServer();
  fillSocket();
  for (int i = 0; i < 400; ++i) ASSERT_NE(send("Small"), 0U);
  ASSERT_LT(transport_->queuedBytes(), 64U << 10);
  EXPECT_LT(account_->used(Resource::queued_bytes), (64U << 10) + 1000);
}

TEST_F(SendTest, MessageThatTheKernelMayCutIsRefusedWholeWhereTheAccountIsFull) {
  makeServer();
  const Charge others = Charge::of(account_, Resource::queued_bytes, 1U << 20);
  EXPECT_EQ(send("Refused", std::string(20'000, 'x')), 0U);
  EXPECT_EQ(error_, ENOBUFS);
  EXPECT_THAT(readFrom(peer_.get()), IsEmpty());
}

TEST_F(SendTest, HandshakeThatFindsNoRoomWaits) {
  makeTransport(Transport::Side::client);
  fillSocketFromOutside();
  EXPECT_EQ(send("One"), 1U);
  EXPECT_TRUE(transport_->wantsToWrite());
  EXPECT_EQ(transport_->queuedBytes(), callBytes("One").size()) << "the handshake is not counted";
  EXPECT_THAT(readAllFlushing(), testing::EndsWith("n" + opening() + callBytes("One")));
}

TEST_F(SendTest, DescriptorsThatWaitPassOnceAndWithTheirOwnMessage) {
  makeServer();
  fillSocket();
  const std::string text(300'000, 'y');
  const Descriptors passed(2);
  ASSERT_NE(send("With", text, passed.numbers), 0U);
  ASSERT_NE(send("Behind"), 0U);
  std::array<std::byte, 1000> buffer{};
  std::vector<FileDescriptor> descriptors;
  std::size_t read = 0;
  std::size_t read_with_descriptors = 0;
  for (;;) {
    const ReadResult result = readSocket(peer_.get(), buffer, 16, descriptors);
    read += result.bytes;
    if (result.passed > 0) read_with_descriptors = read;
    EXPECT_TRUE(transport_->flush());
    if (transport_->queuedBytes() < text.size()) {
      EXPECT_EQ(account_->used(Resource::descriptors), 0U);
    }
    if (result.bytes == 0 && !transport_->wantsToWrite()) break;
  }
  EXPECT_THAT(descriptors, SizeIs(2));
  const std::array<int, 2> any{0, 0};
  EXPECT_GT(read_with_descriptors, read - callBytes("Behind").size() - callBytes("With", text, any).size());
}

TEST_F(SendTest, LongMessageThatFindsNoRoomWaitsWithItsDescriptors) {
  makeServer();
  fillSocketFromOutside();
  const Descriptors passed(2);
  const std::string text(900'000, 'y');  // the account has no room for two of these
  EXPECT_EQ(send("With", text, passed.numbers), 1U);
  EXPECT_EQ(account_->used(Resource::descriptors), 2U);
  std::vector<FileDescriptor> descriptors;
  const std::string all = readAllFlushing(descriptors);
  EXPECT_TRUE(all.ends_with("n" + callBytes("With", text, passed.numbers)));
  EXPECT_THAT(descriptors, SizeIs(2));
}

TEST_F(SendTest, LongMessagePassesItsDescriptorsWithItsFirstPartOnly) {
  makeServer();
  const Descriptors passed(2);
  const std::string text(900'000, 'y');
  EXPECT_EQ(send("With", text, passed.numbers), 1U);
  EXPECT_GT(transport_->queuedBytes(), 0U);
  EXPECT_EQ(account_->used(Resource::descriptors), 0U);
  std::vector<FileDescriptor> descriptors;
  EXPECT_TRUE(readAllFlushing(descriptors) == callBytes("With", text, passed.numbers));
  EXPECT_THAT(descriptors, SizeIs(2));
}

TEST_F(SendTest, MessageOfWhichNothingWasSentMayBeRefusedWithoutEndingTheOutput) {
  makeServer();
  fillSocketFromOutside();
  Charge others = Charge::of(account_, Resource::queued_bytes, 1U << 20);
  EXPECT_EQ(send("Refused"), 0U);
  EXPECT_EQ(error_, ENOBUFS);
  others.reset();
  EXPECT_EQ(send("Kept"), 2U);
  EXPECT_THAT(readAllFlushing(), testing::EndsWith("n" + callBytes("Kept", "", {}, 2)));
}

TEST_F(SendTest, MessageIsRefusedWhenThePeersAccountHasNoRoom) {
  makeServer();
  fillSocket();
  Charge others =
      Charge::of(account_, Resource::queued_bytes, (1U << 20) - account_->used(Resource::queued_bytes));
  const std::uint64_t queued = transport_->queuedBytes();
  EXPECT_EQ(send("Refused", std::string(70'000, 'x')), 0U);
  EXPECT_EQ(error_, ENOBUFS);
  EXPECT_EQ(transport_->queuedBytes(), queued);
  others.reset();
  EXPECT_NE(send("Kept"), 0U);
  EXPECT_THAT(readAllFlushing(), testing::Not(testing::HasSubstr("Refused")));
}

TEST_F(SendTest, LongMessageIsRefusedWholeRatherThanCut) {
  makeServer();
  const Charge others = Charge::of(account_, Resource::queued_bytes, 500'000);
  EXPECT_EQ(send("Refused", std::string(700'000, 'x')), 0U);
  EXPECT_EQ(error_, ENOBUFS);
  EXPECT_THAT(readFrom(peer_.get()), IsEmpty());
  EXPECT_EQ(account_->used(Resource::queued_bytes), 500'000U);
}

TEST_F(SendTest, PeerThatReadsIsServedThoughItsAccountIsFull) {
  makeServer();
  const Charge others = Charge::of(account_, Resource::queued_bytes, 1U << 20);
  EXPECT_EQ(send("One", std::string(10'000, 'x')), 1U);
  EXPECT_EQ(readFrom(peer_.get()), callBytes("One", std::string(10'000, 'x')));
}

TEST_F(SendTest, ShortMessageThatTheSocketCutsEndsTheOutputWhereTheAccountIsFull) {
  const int least = 1;
  ASSERT_EQ(::setsockopt(ours_.get(), SOL_SOCKET, SO_SNDBUF, &least, sizeof least), 0);
  makeServer();
  const Charge others = Charge::of(account_, Resource::queued_bytes, 1U << 20);
  EXPECT_EQ(send("Cut", std::string(15'000, 'x')), 0U);
  EXPECT_EQ(error_, ENOBUFS);
  EXPECT_EQ(send("More"), 0U);
  EXPECT_EQ(error_, EPIPE);
  EXPECT_FALSE(transport_->flush());
  const std::string part = readFrom(peer_.get());
  EXPECT_GT(part.size(), 0U);
  EXPECT_LT(part.size(), 15'000U);
  char c = 0;
  EXPECT_EQ(::recv(peer_.get(), &c, 1, MSG_DONTWAIT), 0) << "the peer must not wait for the rest";
  passTo(peer_.get(), callBytes("Still"));
  EXPECT_EQ(receive(), Outcome::drained);
  EXPECT_THAT(members_, ElementsAre("Still"));
}

TEST_F(SendTest, PeerThatIsGoneIsReported) {
  makeServer();
  peer_.reset();
  EXPECT_EQ(send("One"), 0U);
  EXPECT_EQ(error_, EPIPE);
  EXPECT_FALSE(transport_->flush());
  EXPECT_FALSE(transport_->wantsToWrite());
}

TEST_F(SendTest, PeerThatIsGoneWithRepliesUnreadIsReportedAlike) {
  makeServer();
  EXPECT_NE(send("Unread"), 0U);
  peer_.reset();
  EXPECT_EQ(send("One"), 0U);
  EXPECT_EQ(error_, EPIPE);
  EXPECT_FALSE(transport_->flush());
}

TEST_F(SendTest, WhatAPeerThatIsGoneSaidBeforeIsStillRead) {
  makeServer();
  passTo(peer_.get(), callBytes("Last"));
  peer_.reset();
  EXPECT_EQ(send("One"), 0U);
  EXPECT_EQ(receive(), Outcome::drained);
  EXPECT_THAT(members_, ElementsAre("Last"));
  EXPECT_EQ(receive(), Outcome::ended);
}

TEST_F(SendTest, QueueIsDroppedWithThePeer) {
  makeServer();
  fillSocket();
  peer_.reset();
  EXPECT_FALSE(transport_->flush());
  EXPECT_EQ(transport_->queuedBytes(), 0U);
  EXPECT_EQ(account_->used(Resource::queued_bytes), 0U);
}

TEST_F(SendTest, ServersMessagesWaitForTheEndOfTheHandshake) {
  makeTransport(Transport::Side::server);
  EXPECT_EQ(send("Early"), 1U);
  EXPECT_FALSE(transport_->wantsToWrite());
  EXPECT_THAT(readFrom(peer_.get()), IsEmpty());
  passTo(peer_.get(), opening(false));
  EXPECT_EQ(receive(), Outcome::drained);
  const std::string all = readFrom(peer_.get());
  EXPECT_THAT(all, testing::StartsWith("OK "));
  EXPECT_EQ(all.substr(all.find('\n') + 1), callBytes("Early"));
}

TEST_F(SendTest, DescriptorsWaitForTheAgreementAndAllBehindThem) {
  makeTransport(Transport::Side::client);
  const std::size_t before = openDescriptors();
  const int inherited_before = inheritedDescriptors();
  {
    const Descriptors passed(2);
    EXPECT_EQ(send("First"), 1U);
    EXPECT_EQ(send("With", "", passed.numbers), 2U);
    EXPECT_EQ(send("Behind"), 3U);
  }
  EXPECT_EQ(openDescriptors(), before + 2) << "the caller may close its own";
  EXPECT_EQ(inheritedDescriptors(), inherited_before);
  EXPECT_EQ(account_->used(Resource::descriptors), 2U);
  EXPECT_EQ(readFrom(peer_.get()), opening() + callBytes("First"));
  EXPECT_FALSE(transport_->wantsToWrite());
  answerHandshake();
  EXPECT_EQ(receive(), Outcome::drained);
  std::vector<FileDescriptor> descriptors;
  std::string all = readOnce(descriptors);
  EXPECT_THAT(descriptors, SizeIs(2));
  all += readFrom(peer_.get());
  const std::array<int, 2> any{0, 0};
  EXPECT_EQ(all, callBytes("With", "", any, 2) + callBytes("Behind", "", {}, 3));
  descriptors.clear();
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(account_->used(Resource::descriptors), 0U);
}

TEST_F(SendTest, BytesBeforeDescriptorsThatWaitAreSent) {
  makeTransport(Transport::Side::client);
  fillSocket();
  const std::uint64_t before = transport_->queuedBytes();
  const Descriptors passed(1);
  EXPECT_NE(send("With", "", passed.numbers), 0U);
  const std::uint64_t held = transport_->queuedBytes() - before;
  EXPECT_TRUE(transport_->wantsToWrite());
  readAllFlushing();
  EXPECT_EQ(transport_->queuedBytes(), held);
  EXPECT_FALSE(transport_->wantsToWrite());
}

TEST_F(SendTest, ServersDescriptorsWaitForTheAgreementAndAllGoAtOnce) {
  makeTransport(Transport::Side::server);
  const Descriptors passed(1);
  std::string expected;
  for (std::uint32_t serial = 1; serial <= 20; ++serial) {
    EXPECT_EQ(send("With", "", passed.numbers), serial);
    expected += callBytes("With", "", passed.numbers, serial);
  }
  passTo(peer_.get(), opening());
  EXPECT_EQ(receive(), Outcome::drained);
  EXPECT_EQ(transport_->queuedBytes(), 0U);
  std::vector<FileDescriptor> descriptors;
  EXPECT_THAT(readAllFlushing(descriptors), testing::EndsWith(expected));
  EXPECT_THAT(descriptors, SizeIs(20));
}

TEST_F(SendTest, DescriptorsDoNotGoWithAHandshakeThatFoundNoRoom) {
  makeTransport(Transport::Side::server);
  fillSocketFromOutside();
  passTo(peer_.get(), opening());
  EXPECT_EQ(receive(), Outcome::drained);
  ASSERT_TRUE(transport_->isEstablished());
  EXPECT_THAT(readFrom(peer_.get()), testing::EndsWith("n"));
  const Descriptors passed(1);
  EXPECT_EQ(send("With", "", passed.numbers), 1U);
  std::array<std::byte, 20> beginning{};
  std::vector<FileDescriptor> descriptors;
  EXPECT_EQ(readSocket(peer_.get(), beginning, 100, descriptors).bytes, beginning.size());
  EXPECT_THAT(descriptors, IsEmpty());
  EXPECT_THAT(readAllFlushing(descriptors), testing::EndsWith(callBytes("With", "", passed.numbers)));
  EXPECT_THAT(descriptors, SizeIs(1));
}

TEST_F(SendTest, FirstMessageWithDescriptorsLetsTheHandshakeGoAlone) {
  makeTransport(Transport::Side::client);
  const Descriptors passed(1);
  EXPECT_EQ(send("With", "", passed.numbers), 1U);
  std::vector<FileDescriptor> descriptors;
  EXPECT_EQ(readOnce(descriptors), opening());
  EXPECT_THAT(descriptors, IsEmpty());
}

TEST_F(SendTest, ServerThatTakesNoDescriptorsEndsAClientThatHasSomeWaiting) {
  makeTransport(Transport::Side::client);
  const Descriptors passed(1);
  EXPECT_EQ(send("With", "", passed.numbers), 1U);
  answerHandshake(false);
  EXPECT_EQ(receive(), Outcome::ended);
  EXPECT_EQ(transport_->reason(), "the peer takes no file descriptors");
}

TEST_F(SendTest, ServerThatTakesNoDescriptorsEndsAClientThatHasSomeWaitingBehindOthers) {
  makeTransport(Transport::Side::client);
  fillSocket();
  const Descriptors passed(1);
  EXPECT_NE(send("With", "", passed.numbers), 0U);
  answerHandshake(false);
  EXPECT_EQ(receive(), Outcome::ended);
  EXPECT_EQ(transport_->reason(), "the peer takes no file descriptors");
}

TEST_F(SendTest, ClientThatAskedMayPassDescriptorsBeforeTheAnswer) {
  for (const bool takes : {true, false}) {
    std::tie(ours_, peer_) = socketPair();
    makeTransport(Transport::Side::client, {.takes_descriptors = takes, .passes_descriptors = !takes});
    const Descriptors passed(1);
    EXPECT_EQ(send("With", "", passed.numbers), 1U) << takes;
  }
}

TEST_F(SendTest, ServerThatTakesNoDescriptorsPassesNone) {
  makeTransport(Transport::Side::server, {.takes_descriptors = false});
  const Descriptors passed(1);
  EXPECT_EQ(send("With", "", passed.numbers), 0U);
  EXPECT_EQ(error_, EOPNOTSUPP);
}

TEST_F(SendTest, DescriptorsAreRefusedWhereThePeerTakesNone) {
  makeTransport(Transport::Side::client);
  transport_->startHandshake();
  answerHandshake(false);
  EXPECT_EQ(receive(), Outcome::drained);
  const Descriptors passed(1);
  EXPECT_EQ(send("With", "", passed.numbers), 0U);
  EXPECT_EQ(error_, EOPNOTSUPP);
  EXPECT_NE(send("Without"), 0U);
}

TEST_F(SendTest, DescriptorsAreRefusedWhereTheClientDidNotAsk) {
  makeTransport(Transport::Side::client, {.takes_descriptors = false, .passes_descriptors = false});
  const Descriptors passed(1);
  EXPECT_EQ(send("With", "", passed.numbers), 0U);
  EXPECT_EQ(error_, EOPNOTSUPP);
}

TEST_F(SendTest, MoreDescriptorsThanTheKernelPassesAreRefused) {
  makeServer();
  const FileDescriptor null = openNull();
  Outgoing message = makeCall("With");
  message.descriptors.assign(most_passed_descriptors + 1, null.get());
  EXPECT_EQ(transport_->send(message, error_), 0U);
  EXPECT_EQ(error_, EINVAL);
  message.descriptors.pop_back();
  EXPECT_NE(transport_->send(message, error_), 0U);
  fillSocket();
  message.descriptors.push_back(null.get());
  EXPECT_EQ(transport_->send(message, error_), 0U);
  EXPECT_EQ(error_, EINVAL) << "although it would only wait";
}

TEST_F(SendTest, DescriptorsThatWaitAreBoundedByTheAccount) {
  makeServer();
  fillSocket();
  const std::size_t before = openDescriptors();
  const FileDescriptor null = openNull();
  const std::vector<int> numbers(20, null.get());
  EXPECT_NE(send("With", "", numbers), 0U);
  EXPECT_EQ(send("With", "", numbers), 0U);
  EXPECT_EQ(error_, ENOBUFS);
  EXPECT_EQ(openDescriptors(), before + 21);
  peer_.reset();
  EXPECT_FALSE(transport_->flush());
  EXPECT_EQ(account_->used(Resource::descriptors), 0U);
}

TEST_F(SendTest, InvalidDescriptorIsReportedAndNothingSent) {
  makeServer();
  Outgoing message = makeCall("With", "", std::array<int, 1>{0});
  message.descriptors = {-1};
  EXPECT_EQ(transport_->send(message, error_), 0U);
  EXPECT_EQ(error_, EBADF);
  EXPECT_THAT(readFrom(peer_.get()), IsEmpty());
  EXPECT_NE(send("Next"), 0U);
}

}  // namespace
}  // namespace kelvane::wire
