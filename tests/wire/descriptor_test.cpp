#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <functional>

#include "tests/wire/transport_fixture.h"

namespace kelvane::wire {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// Notes what is open before, the socket pair included; at the end nothing more may be.
class DescriptorTest : public TransportTest {
 protected:
  ~DescriptorTest() override {
    transport_.reset();
    taken_.clear();
    peer_.reset();
    EXPECT_EQ(openDescriptors(), before_ - 2);
  }

  /// Sends bytes with this many descriptors of /dev/null.
  void pass(std::string_view bytes, std::size_t count) {
    const Descriptors passed(count);
    passTo(peer_.get(), bytes, passed.numbers);
  }
  /// A call whose header states this many.
  static std::string naming(std::size_t count, std::string_view member = "Naming") {
    return callBytes(member, "", std::vector<int>(count, 0));
  }
  void expectNothingKept() {
    EXPECT_EQ(openDescriptors(), before_);
    EXPECT_EQ(account_->used(Resource::descriptors), 0U);
  }

  const std::size_t before_ = openDescriptors();
};

TEST_F(DescriptorTest, NamedDescriptorsComeWithTheirMessage) {
  makeServer();
  keeps_ = true;
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
  const FileDescriptor reading(pipe[0]);
  FileDescriptor writing(pipe[1]);
  passTo(peer_.get(), naming(1), std::array<int, 1>{writing.get()});
  EXPECT_EQ(receiveAll(), Outcome::drained);
  ASSERT_THAT(taken_, SizeIs(1));
  EXPECT_EQ(::fcntl(taken_[0].get(), F_GETFD), FD_CLOEXEC);
  ASSERT_EQ(::write(taken_[0].get(), "x", 1), 1);
  char c = 0;
  EXPECT_EQ(::read(reading.get(), &c, 1), 1);
  EXPECT_EQ(c, 'x');
}

TEST_F(DescriptorTest, DescriptorsAreChargedUntilTheHandlerIsDoneWithThem) {
  makeServer();
  keeps_ = true;
  pass(naming(3), 3);
  EXPECT_EQ(receiveAll(), Outcome::drained);
  EXPECT_EQ(account_->used(Resource::descriptors), 3U);
  charges_.clear();
  EXPECT_EQ(account_->used(Resource::descriptors), 0U);
}

TEST_F(DescriptorTest, WhatTheHandlerLeavesIsClosed) {
  makeServer();
  pass(naming(3), 3);
  EXPECT_EQ(receiveAll(), Outcome::drained);
  EXPECT_THAT(named_, ElementsAre(3));
  expectNothingKept();
}

TEST_F(DescriptorTest, MessagesJoinedInOneReadGetTheirOwn) {
  makeServer();
  keeps_ = true;
  passTo(peer_.get(), callBytes("Before"));
  pass(naming(2, "With"), 2);
  pass(naming(1, "Next"), 1);
  passTo(peer_.get(), callBytes("After"));
  EXPECT_EQ(receiveAll(), Outcome::drained);
  EXPECT_THAT(members_, ElementsAre("Before", "With", "Next", "After"));
  EXPECT_THAT(named_, ElementsAre(0, 2, 1, 0));
}

TEST_F(DescriptorTest, DescriptorsWithTheFirstPartOfAMessageWaitForItsEnd) {
  makeServer();
  const std::string bytes = naming(2);
  for (std::size_t cut = 1; cut < bytes.size(); ++cut) {
    pass(bytes.substr(0, cut), 2);
    EXPECT_EQ(receiveAll(), Outcome::drained) << "cut at " << cut;
    EXPECT_EQ(account_->used(Resource::descriptors), 2U);
    passTo(peer_.get(), bytes.substr(cut));
    EXPECT_EQ(receiveAll(), Outcome::drained) << "cut at " << cut;
    EXPECT_THAT(named_, ElementsAre(2)) << "cut at " << cut;
    named_.clear();
    expectNothingKept();
  }
}

TEST_F(DescriptorTest, EachMessageGetsThoseThatCameWithIt) {
  makeServer();
  keeps_ = true;
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
  const FileDescriptor reading(pipe[0]);
  const FileDescriptor writing(pipe[1]);
  const std::string first = naming(2);
  passTo(peer_.get(), first.substr(0, 30), pipe);
  EXPECT_EQ(receiveAll(), Outcome::drained);
  passTo(peer_.get(), first.substr(30) + callBytes("Between"));
  pass(naming(1), 1);
  EXPECT_EQ(receiveAll(), Outcome::drained) << transport_->reason();
  EXPECT_THAT(named_, ElementsAre(2, 0, 1));
  ASSERT_THAT(taken_, SizeIs(3));
  std::vector<bool> are_pipes;
  for (const auto& descriptor : taken_) {
    struct stat status {};
    ASSERT_EQ(::fstat(descriptor.get(), &status), 0);
    are_pipes.push_back(S_ISFIFO(status.st_mode));
  }
  EXPECT_THAT(are_pipes, ElementsAre(true, true, false));
}

TEST_F(DescriptorTest, DescriptorsWithALongMessageWaitForItsEnd) {
  makeServer();
  const std::string bytes = callBytes("Long", std::string(300'000, 'x'), std::array<int, 2>{0, 0});
  pass(bytes.substr(0, 40'000), 2);
  for (std::size_t at = 40'000; at < bytes.size(); at += 40'000) {
    EXPECT_EQ(receiveAll(), Outcome::drained);
    passTo(peer_.get(), std::string_view(bytes).substr(at, 40'000));
  }
  EXPECT_EQ(receiveAll(), Outcome::drained);
  EXPECT_THAT(named_, ElementsAre(2));
  expectNothingKept();
}

TEST_F(DescriptorTest, MostWithOneMessageAreTakenAndOneMoreEnds) {
  makeServer();
  pass(naming(16), 16);
  EXPECT_EQ(receiveAll(), Outcome::drained);
  EXPECT_THAT(named_, ElementsAre(16));
  pass(naming(17), 17);
  EXPECT_EQ(receiveAll(), Outcome::ended);
  EXPECT_THAT(named_, ElementsAre(16));
  expectNothingKept();
}

TEST_F(DescriptorTest, MessageThatWaitsForItsTurnKeepsItsDescriptors) {
  makeServer();
  goes_on_ = false;
  passTo(peer_.get(), callBytes("One") + callBytes("Two"));
  pass(naming(2, "Three"), 2);
  EXPECT_EQ(receive(), Outcome::more);
  EXPECT_THAT(named_, ElementsAre(0));
  EXPECT_EQ(receive(), Outcome::more);
  EXPECT_THAT(named_, ElementsAre(0, 0));
  EXPECT_EQ(receive(), Outcome::more);
  EXPECT_THAT(named_, ElementsAre(0, 0, 2));
  expectNothingKept();
}

TEST_F(DescriptorTest, HandshakesEndMayComeWithTheFirstMessagesDescriptors) {
  makeTransport(Transport::Side::server);
  const std::string begin = "BEGIN\r\n";
  passTo(peer_.get(), opening().substr(0, opening().size() - begin.size()));
  EXPECT_EQ(receive(), Outcome::drained);
  passTo(peer_.get(), begin);
  pass(naming(2), 2);
  EXPECT_EQ(receiveAll(), Outcome::drained);
  EXPECT_THAT(named_, ElementsAre(2));
  expectNothingKept();
}

TEST_F(DescriptorTest, ServersAgreementMayComeWithTheFirstReplysDescriptors) {
  makeTransport(Transport::Side::client);
  transport_->startHandshake();
  passTo(peer_.get(), "OK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n");
  pass(naming(2), 2);
  EXPECT_EQ(receiveAll(), Outcome::drained);
  EXPECT_THAT(named_, ElementsAre(2));
  expectNothingKept();
}

// What a peer must not do.

TEST_F(DescriptorTest, ManyWithoutTheFieldEnd) {
  for (const std::size_t count : {1U, 16U, 17U, 250U}) {
    auto pair = socketPair();
    std::tie(ours_, peer_) = std::move(pair);
    makeServer();
    pass(callBytes("Unnamed"), count);
    EXPECT_EQ(receiveAll(), Outcome::ended) << count;
    EXPECT_THAT(transport_->reason(), testing::HasSubstr("passed"));
    expectNothingKept();
  }
}

TEST_F(DescriptorTest, ManyInAReplyEnd) {
  makeServer();
  Outgoing reply;
  Header header;
  header.type = MessageType::method_return;
  header.reply_serial = 1;
  ASSERT_EQ(Writer(reply, header).finish(), Writer::Fault::none);
  setSerial(reply, 1);
  pass(bytesOf(reply), 250);
  EXPECT_EQ(receiveAll(), Outcome::ended);
  expectNothingKept();
}

TEST_F(DescriptorTest, FewerThanNamedEnd) {
  makeServer();
  pass(naming(3), 2);
  EXPECT_EQ(receiveAll(), Outcome::ended);
  EXPECT_EQ(transport_->reason(), "the peer sent a message that names 3 file descriptors, and passed 2");
  expectNothingKept();
}

TEST_F(DescriptorTest, NoneThoughNamedEnds) {
  makeServer();
  passTo(peer_.get(), naming(1));
  EXPECT_EQ(receiveAll(), Outcome::ended);
  EXPECT_EQ(transport_->reason(), "the peer sent a message that names 1 file descriptors, and passed 0");
}

TEST_F(DescriptorTest, MoreThanNamedEnd) {
  makeServer();
  pass(naming(1), 3);
  EXPECT_EQ(receiveAll(), Outcome::ended);
  EXPECT_EQ(transport_->reason(), "the peer passed 2 file descriptors that no message names");
  expectNothingKept();
}

TEST_F(DescriptorTest, MoreThanNamedWithTheFirstPartEnd) {
  makeServer();
  const std::string bytes = naming(1);
  pass(bytes.substr(0, 20), 3);
  EXPECT_EQ(receiveAll(), Outcome::drained);
  passTo(peer_.get(), bytes.substr(20) + naming(2));
  EXPECT_EQ(receiveAll(), Outcome::ended);
  EXPECT_EQ(transport_->reason(), "the peer sent a message that names 1 file descriptors, and passed 3");
  expectNothingKept();
}

TEST_F(DescriptorTest, MoreThanNamedWithALaterPartEnd) {
  for (const std::size_t length : {100U, 200'000U}) {
    auto pair = socketPair();
    std::tie(ours_, peer_) = std::move(pair);
    makeServer();
    const std::string bytes = callBytes("Parts", std::string(length, 'x'), std::array<int, 1>{0});
    const std::size_t last = bytes.size() - 20;
    for (std::size_t at = 0; at < last; at += 40'000) {
      const std::string_view part =
          std::string_view(bytes).substr(at, std::min<std::size_t>(40'000, last - at));
      if (at + part.size() == last) {  // the last but one, behind bytes that told the size
        passTo(peer_.get(), part.substr(0, 20));
        EXPECT_EQ(receiveAll(), Outcome::drained);
        pass(part.substr(20), 3);
      } else {
        passTo(peer_.get(), part);
      }
      EXPECT_EQ(receiveAll(), Outcome::drained) << transport_->reason();
    }
    passTo(peer_.get(), bytes.substr(last) + naming(2));
    EXPECT_EQ(receiveAll(), Outcome::ended);
    EXPECT_EQ(transport_->reason(), "the peer sent a message that names 1 file descriptors, and passed 3");
    expectNothingKept();
  }
}

TEST_F(DescriptorTest, PeerThatChangesTheOptionsOfOurSocketEndsTheConnection) {
  makeServer();
  const int on = 1;
  ASSERT_EQ(::setsockopt(transport_->socket(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on), 0);
  pass(naming(2), 2);
  EXPECT_EQ(receive(), Outcome::ended);
  EXPECT_EQ(transport_->reason(), "the peer changed the options of this end's socket");
  EXPECT_THAT(members_, IsEmpty());
  expectNothingKept();
}

TEST_F(DescriptorTest, DescriptorsOfAMessageThatNeverEndsAreClosedWithTheConnection) {
  makeServer();
  const std::string bytes = naming(2);
  pass(bytes.substr(0, 20), 2);
  EXPECT_EQ(receiveAll(), Outcome::drained);
  peer_.reset();
  EXPECT_EQ(receiveAll(), Outcome::ended);
  EXPECT_EQ(openDescriptors(), before_ - 1);
}

TEST_F(DescriptorTest, DescriptorsOfAMalformedMessageAreClosed) {
  makeServer();
  pass(std::string(64, 'x'), 5);
  EXPECT_EQ(receiveAll(), Outcome::ended);
  expectNothingKept();
}

TEST_F(DescriptorTest, TooManyOverThePartsOfOneMessageEnd) {
  makeServer();
  const std::string bytes = callBytes("Parts", std::string(100, 'x'));
  pass(bytes.substr(0, 20), 10);
  pass(bytes.substr(20, 20), 6);
  EXPECT_EQ(receiveAll(), Outcome::drained);
  pass(bytes.substr(40, 20), 1);
  EXPECT_EQ(receiveAll(), Outcome::ended);
  expectNothingKept();
}

TEST_F(DescriptorTest, DescriptorsWithTheHandshakeEnd) {
  makeTransport(Transport::Side::server);
  pass(opening(), 250);
  EXPECT_EQ(receive(), Outcome::ended);
  EXPECT_THAT(readFrom(peer_.get()), IsEmpty()) << "nothing of it is answered";
  expectNothingKept();
}

TEST_F(DescriptorTest, DescriptorsWithTheHandshakeAfterTheAgreementEnd) {
  makeTransport(Transport::Side::server);
  passTo(peer_.get(), opening().substr(0, opening().size() - 7));
  EXPECT_EQ(receive(), Outcome::drained);
  EXPECT_THAT(readFrom(peer_.get()), testing::EndsWith("AGREE_UNIX_FD\r\n"));
  pass("BEG", 2);
  EXPECT_EQ(receive(), Outcome::ended);
  EXPECT_EQ(transport_->reason(), "the peer passed 2 file descriptors that no message names");
  expectNothingKept();
}

TEST_F(DescriptorTest, DescriptorsBeforeTheAgreementEnd) {
  makeTransport(Transport::Side::server);
  pass(opening() + naming(2), 2);
  EXPECT_EQ(receive(), Outcome::ended);
  EXPECT_THAT(members_, IsEmpty());
  expectNothingKept();
}

TEST_F(DescriptorTest, DescriptorsOfAPeerThatDidNotAskEnd) {
  makeTransport(Transport::Side::server);
  passTo(peer_.get(), opening(false));
  EXPECT_EQ(receive(), Outcome::drained);
  pass(naming(1), 1);
  EXPECT_EQ(receive(), Outcome::ended);
  EXPECT_THAT(members_, IsEmpty());
  expectNothingKept();
}

TEST_F(DescriptorTest, DescriptorsWhereNoneAreTakenEnd) {
  for (const bool negotiates : {true, false}) {
    auto pair = socketPair();
    std::tie(ours_, peer_) = std::move(pair);
    makeTransport(Transport::Side::server, {.takes_descriptors = false});
    passTo(peer_.get(), opening(negotiates));
    EXPECT_EQ(receive(), Outcome::drained);
    EXPECT_THAT(readFrom(peer_.get()), testing::Not(testing::HasSubstr("AGREE")));
    pass(naming(1), 1);
    EXPECT_EQ(receive(), Outcome::ended);
    EXPECT_EQ(transport_->reason(),
              "the peer passed file descriptors where none are taken, or more than are taken");
    EXPECT_THAT(members_, IsEmpty());
    expectNothingKept();
  }
}

TEST_F(DescriptorTest, ServerThatDidNotAgreeMustNotPassAny) {
  makeTransport(Transport::Side::client);
  transport_->startHandshake();
  passTo(peer_.get(), "OK 0123456789abcdef0123456789abcdef\r\nERROR\r\n");
  pass(naming(2), 2);
  EXPECT_EQ(receiveAll(), Outcome::ended);
  EXPECT_THAT(members_, IsEmpty());
  expectNothingKept();
}

TEST_F(DescriptorTest, ClientThatOnlyPassesDescriptorsTakesNone) {
  makeTransport(Transport::Side::client, {.takes_descriptors = false, .passes_descriptors = true});
  transport_->startHandshake();
  passTo(peer_.get(), "OK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n");
  EXPECT_EQ(receiveAll(), Outcome::drained);
  pass(naming(2), 2);
  EXPECT_EQ(receiveAll(), Outcome::ended);
  EXPECT_THAT(members_, IsEmpty());
  expectNothingKept();
}

TEST_F(DescriptorTest, WhatIsMissingIsSaidEachTime) {
  makeServer();
  Charge descriptors = Charge::of(account_, Resource::descriptors, 32);
  Charge bytes = Charge::of(account_, Resource::received_bytes, 1U << 20);
  EXPECT_EQ(receive(), Outcome::no_room);
  EXPECT_EQ(transport_->missing(), Resource::descriptors);
  descriptors.reset();
  EXPECT_EQ(receive(), Outcome::no_room);
  EXPECT_EQ(transport_->missing(), Resource::received_bytes);
  EXPECT_EQ(account_->used(Resource::descriptors), 0U);
  bytes.reset();
  EXPECT_EQ(receive(), Outcome::drained);
}

TEST_F(DescriptorTest, NothingIsReadWithoutRoomForDescriptors) {
  makeServer();
  Charge others = Charge::of(account_, Resource::descriptors, 32);
  pass(naming(1), 1);
  EXPECT_EQ(receive(), Outcome::no_room);
  EXPECT_EQ(transport_->missing(), Resource::descriptors);
  EXPECT_EQ(account_->used(Resource::received_bytes), 0U);
  others.shrink(1);
  EXPECT_EQ(receiveAll(), Outcome::drained);
  EXPECT_THAT(named_, ElementsAre(1));
  others.reset();
  expectNothingKept();
}

TEST_F(DescriptorTest, MessageWithDescriptorsIsReadToItsEndThoughTheAccountIsFull) {
  makeServer();
  const std::string bytes = naming(2);
  pass(bytes.substr(0, 20), 2);
  EXPECT_EQ(receiveAll(), Outcome::drained);
  const Charge others = Charge::of(account_, Resource::descriptors, 30);
  passTo(peer_.get(), bytes.substr(20));
  EXPECT_EQ(receiveAll(), Outcome::drained);
  EXPECT_THAT(named_, ElementsAre(2));
}

TEST_F(DescriptorTest, MoreThanTheAccountHasRoomForEnd) {
  makeServer();
  const Charge others = Charge::of(account_, Resource::descriptors, 30);
  pass(naming(3), 3);
  EXPECT_EQ(receiveAll(), Outcome::ended);
  EXPECT_EQ(openDescriptors(), before_);
  EXPECT_EQ(account_->used(Resource::descriptors), 30U);
}

/// The exit status of a child that runs this; 0 is good.
int inChild(const std::function<int()>& run) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(run());
  int status = -1;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

/// The kernel installs what fits, and drops the rest.
TEST_F(DescriptorTest, ProcessWithoutRoomForDescriptorsEndsTheConnectionAndKeepsNone) {
  makeServer();
  pass(naming(8), 8);
  for (const rlim_t free : {0U, 1U, 5U, 7U}) {
    EXPECT_EQ(inChild([&] {
                // The lowest numbers are taken first: fill the gaps, then leave the rest.
                const FileDescriptor highest = openNull();
                const rlimit limit{highest.get() + 1 + free, highest.get() + 1 + free};
                if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) return 10;
                const auto isOpen = [](int number) { return ::fcntl(number, F_GETFD) >= 0; };
                int open_before = 0;
                for (int number = 0; number < 1000; ++number) open_before += isOpen(number) ? 1 : 0;
                if (receiveAll() != Outcome::ended) return 11;
                int open_after = 0;
                for (int number = 0; number < 1000; ++number) open_after += isOpen(number) ? 1 : 0;
                if (open_after != open_before) return 12;
                if (!members_.empty() || account_->used(Resource::descriptors) != 0) return 13;
                return transport_->reason().find("more than are taken") == std::string::npos ? 14 : 0;
              }),
              0)
        << free << " free";
    // The child has read it.
    pass(naming(8), 8);
  }
  receiveAll();
}

}  // namespace
}  // namespace kelvane::wire
