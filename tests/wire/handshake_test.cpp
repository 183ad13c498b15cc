#include <gmock/gmock.h>
#include <cstring>
#include <string>

#include "platform/wire/handshake.h"

namespace kelvane::wire {
namespace {

using testing::StartsWith;

constexpr uid_t user = 1000;
constexpr std::string_view identity = "31303030";  // "1000"
constexpr std::string_view ok = "OK 0123456789abcdef0123456789abcdef\r\n";

struct Talk {
  explicit Talk(bool takes_descriptors = true)
      : server(user, "0123456789abcdef0123456789abcdef", takes_descriptors) {}

  /// What the server answers.
  std::string say(std::string_view text) {
    input += text;
    std::string output;
    std::string_view rest = input;
    state = server.advance(rest, output);
    input = std::string(rest);
    return output;
  }

  ServerHandshake server;
  HandshakeState state = HandshakeState::going_on;
  std::string input;  // what was not used
};

std::string nul(std::string_view text) { return std::string(1, '\0') + std::string(text); }
std::string externalWith(std::string_view encoded) {
  return nul("AUTH EXTERNAL " + std::string(encoded) + "\r\n");
}

TEST(ServerHandshakeTest, IdentityOfThePeerIsAccepted) {
  Talk talk;
  EXPECT_EQ(talk.say(externalWith(identity)), ok);
  EXPECT_EQ(talk.say("BEGIN\r\n"), "");
  EXPECT_EQ(talk.state, HandshakeState::done);
}

TEST(ServerHandshakeTest, IdentityIsTheUsersNumberInDigitsEachAsTwo) {
  ServerHandshake server(1234567890, std::string(32, 'a'), true);
  const std::string line = externalWith("31323334353637383930");
  std::string_view input = line;
  std::string output;
  EXPECT_EQ(server.advance(input, output), HandshakeState::going_on);
  EXPECT_THAT(output, StartsWith("OK "));
  EXPECT_EQ(ClientHandshake(1234567890, false).opening(), line + "BEGIN\r\n");
}

TEST(ServerHandshakeTest, AnotherIdentityIsRejected) {
  for (const std::string_view other :
       {"30", "31303031", "3130303030", "313030", "2031303030", "313030300a", "zz", "3", "1000", "31303030 ",
        "2b31303030", "3031303030", "313030300000"}) {
    Talk talk;
    EXPECT_EQ(talk.say(externalWith(other)), "REJECTED EXTERNAL\r\n") << other;
    EXPECT_EQ(talk.say("BEGIN\r\n"), "");
    EXPECT_EQ(talk.state, HandshakeState::failed) << other;
  }
}

TEST(ServerHandshakeTest, EmptyIdentityIsThePeers) {
  Talk talk;
  EXPECT_EQ(talk.say(externalWith("")), ok);
}

TEST(ServerHandshakeTest, IdentityMayFollowAsData) {
  for (const std::string& data :
       {std::string("DATA\r\n"), std::string("DATA \r\n"), "DATA " + std::string(identity) + "\r\n"}) {
    Talk talk;
    EXPECT_EQ(talk.say(nul("AUTH EXTERNAL\r\n")), "DATA\r\n");
    EXPECT_EQ(talk.say(data), ok) << data;
    EXPECT_EQ(talk.say("BEGIN\r\n"), "");
    EXPECT_EQ(talk.state, HandshakeState::done);
  }
}

TEST(ServerHandshakeTest, AnotherIdentityAsDataIsRejected) {
  Talk talk;
  EXPECT_EQ(talk.say(nul("AUTH EXTERNAL\r\n")), "DATA\r\n");
  EXPECT_EQ(talk.say("DATA 30\r\n"), "REJECTED EXTERNAL\r\n");
  EXPECT_THAT(talk.say("DATA\r\n"), StartsWith("ERROR"));
  EXPECT_EQ(talk.say("AUTH EXTERNAL\r\nDATA\r\n"), "DATA\r\n" + std::string(ok));
}

TEST(ServerHandshakeTest, OtherMechanismsAreRejectedWithTheOneThatIsThere) {
  Talk talk;
  EXPECT_EQ(talk.say(nul("AUTH\r\n")), "REJECTED EXTERNAL\r\n");
  EXPECT_EQ(talk.say("AUTH DBUS_COOKIE_SHA1 31303030\r\n"), "REJECTED EXTERNAL\r\n");
  EXPECT_EQ(talk.say("AUTH ANONYMOUS\r\n"), "REJECTED EXTERNAL\r\n");
  EXPECT_EQ(talk.say("AUTH EXTERNALLY 31303030\r\n"), "REJECTED EXTERNAL\r\n");
  EXPECT_EQ(talk.say("AUTH EXTERNAL 31303030\r\n"), ok);
}

TEST(ServerHandshakeTest, CancelAndErrorBeginAgain) {
  for (const char* const line : {"CANCEL\r\n", "ERROR\r\n", "ERROR \"why\"\r\n"}) {
    Talk talk;
    EXPECT_EQ(talk.say(nul(line)), "REJECTED EXTERNAL\r\n");
    EXPECT_EQ(talk.say("AUTH EXTERNAL\r\n"), "DATA\r\n");
    EXPECT_EQ(talk.say(line), "REJECTED EXTERNAL\r\n");
    EXPECT_EQ(talk.say("AUTH EXTERNAL 31303030\r\nNEGOTIATE_UNIX_FD\r\n"),
              std::string(ok) + "AGREE_UNIX_FD\r\n");
    EXPECT_EQ(talk.say(line), "REJECTED EXTERNAL\r\n");
    EXPECT_FALSE(talk.server.passesDescriptors());
    talk.say("BEGIN\r\n");
    EXPECT_EQ(talk.state, HandshakeState::failed);
  }
}

TEST(ServerHandshakeTest, UnknownAndUnexpectedCommandsAreErrors) {
  Talk talk;
  talk.say(nul(""));
  for (const char* const line :
       {"HELLO\r\n", "\r\n", "begin\r\n", "DATA\r\n", "NEGOTIATE_UNIX_FD\r\n", "AUTHX\r\n"}) {
    EXPECT_EQ(talk.say(line), "ERROR \"Unknown or unexpected command\"\r\n") << line;
    EXPECT_EQ(talk.state, HandshakeState::going_on) << line;
  }
}

TEST(ServerHandshakeTest, CommandsThatAreOutOfPlaceAfterOkAreErrors) {
  Talk talk;
  EXPECT_EQ(talk.say(externalWith(identity)), ok);
  for (const char* const line :
       {"AUTH EXTERNAL 31303030\r\n", "DATA\r\n", "BEGIN now\r\n", "NEGOTIATE_UNIX_FD now\r\n"}) {
    EXPECT_THAT(talk.say(line), StartsWith("ERROR")) << line;
    EXPECT_EQ(talk.state, HandshakeState::going_on) << line;
  }
  EXPECT_FALSE(talk.server.passesDescriptors());
  EXPECT_EQ(talk.say("BEGIN\r\n"), "");
  EXPECT_EQ(talk.state, HandshakeState::done);
}

TEST(ServerHandshakeTest, BeginBeforeOkEnds) {
  Talk at_once;
  EXPECT_EQ(at_once.say(nul("BEGIN\r\n")), "");
  EXPECT_EQ(at_once.state, HandshakeState::failed);
  Talk asked;
  EXPECT_EQ(asked.say(nul("AUTH EXTERNAL\r\nBEGIN\r\n")), "DATA\r\n");
  EXPECT_EQ(asked.state, HandshakeState::failed);
}

TEST(ServerHandshakeTest, FirstByteMustBeNul) {
  Talk talk;
  EXPECT_EQ(talk.say("AUTH EXTERNAL 31303030\r\n"), "");
  EXPECT_EQ(talk.state, HandshakeState::failed);
}

TEST(ServerHandshakeTest, DescriptorsAreAgreedToWhereTheyAreTaken) {
  Talk takes(true);
  takes.say(externalWith(identity));
  EXPECT_EQ(takes.say("NEGOTIATE_UNIX_FD\r\n"), "AGREE_UNIX_FD\r\n");
  EXPECT_TRUE(takes.server.passesDescriptors());
  EXPECT_EQ(takes.say("NEGOTIATE_UNIX_FD\r\n"), "AGREE_UNIX_FD\r\n") << "it may be asked again";
  Talk refuses(false);
  refuses.say(externalWith(identity));
  EXPECT_EQ(refuses.say("NEGOTIATE_UNIX_FD\r\n"), "ERROR \"Descriptors cannot be passed\"\r\n");
  EXPECT_FALSE(refuses.server.passesDescriptors());
  EXPECT_EQ(refuses.say("BEGIN\r\n"), "");
  EXPECT_EQ(refuses.state, HandshakeState::done);
}

TEST(ServerHandshakeTest, MessagesBehindBeginAreLeft) {
  Talk talk;
  EXPECT_EQ(talk.say(externalWith(identity) + "BEGIN\r\nl\1\r\n"), ok);
  EXPECT_EQ(talk.state, HandshakeState::done);
  EXPECT_EQ(talk.input, "l\1\r\n");
}

TEST(ServerHandshakeTest, TalkMayBeCutAnywhere) {
  const std::string whole = nul("AUTH EXTERNAL\r\nDATA\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\nl\1");
  for (std::size_t cut = 0; cut <= whole.size(); ++cut) {
    Talk talk;
    std::string answers = talk.say(whole.substr(0, cut));
    if (talk.state == HandshakeState::done) {
      talk.input += whole.substr(cut);
    } else {
      answers += talk.say(whole.substr(cut));
    }
    EXPECT_EQ(answers, "DATA\r\n" + std::string(ok) + "AGREE_UNIX_FD\r\n") << "cut at " << cut;
    EXPECT_EQ(talk.state, HandshakeState::done) << "cut at " << cut;
    EXPECT_EQ(talk.input, "l\1") << "cut at " << cut;
  }
}

TEST(ServerHandshakeTest, TalkMayComeByteByByte) {
  Talk talk;
  std::string answers;
  for (const char c : nul("AUTH EXTERNAL 31303030\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n")) {
    ASSERT_EQ(talk.state, HandshakeState::going_on);
    answers += talk.say(std::string_view(&c, 1));
  }
  EXPECT_EQ(talk.state, HandshakeState::done);
  EXPECT_EQ(answers, std::string(ok) + "AGREE_UNIX_FD\r\n");
}

TEST(ServerHandshakeTest, HandshakeTakes16KiBAtMostWithNulAndLineEnds) {
  const std::string end = "\r\nAUTH EXTERNAL 31303030\r\nBEGIN\r\n";
  for (const std::size_t size : {16'384U, 16'385U}) {
    Talk talk;
    const std::string start = nul("AUTH X");
    talk.say(start + std::string(size - start.size() - end.size(), 'x') + end);
    EXPECT_EQ(talk.state, size == 16'384 ? HandshakeState::done : HandshakeState::failed);
  }
}

TEST(ServerHandshakeTest, LineWithoutEndIsBounded) {
  Talk talk;
  talk.say(nul(std::string(16'383, 'x')));
  EXPECT_EQ(talk.state, HandshakeState::going_on);
  talk.say("x");
  EXPECT_EQ(talk.state, HandshakeState::failed);
}

TEST(ServerHandshakeTest, AllLinesTogetherAreBounded) {
  Talk talk;
  const std::string line = "AUTH X" + std::string(longest_handshake / 4, 'x') + "\r\n";
  EXPECT_EQ(talk.say(nul(line)), "REJECTED EXTERNAL\r\n");
  talk.say(line);
  talk.say(line);
  EXPECT_EQ(talk.state, HandshakeState::going_on);
  talk.say(line);
  EXPECT_EQ(talk.state, HandshakeState::failed);
}

TEST(ServerHandshakeTest, LinesThatComeAtOnceAreBoundedToo) {
  Talk talk;
  talk.say(nul("AUTH X" + std::string(longest_handshake, 'x') + "\r\nAUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n"));
  EXPECT_EQ(talk.state, HandshakeState::failed);
}

TEST(ServerHandshakeTest, AttemptsAreBounded) {
  for (const char* const line : {"AUTH\r\n", "WHAT\r\n", "CANCEL\r\n", "AUTH EXTERNAL\r\nDATA 30\r\n"}) {
    Talk talk;
    talk.say(nul(""));
    unsigned attempts = 0;
    for (; talk.state == HandshakeState::going_on && attempts < 100; ++attempts) talk.say(line);
    EXPECT_EQ(attempts, 9U) << line;
    EXPECT_EQ(talk.state, HandshakeState::failed) << line;
  }
}

TEST(ClientHandshakeTest, SaysAllAtOnce) {
  EXPECT_EQ(ClientHandshake(user, true).opening(),
            nul("AUTH EXTERNAL 31303030\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n"));
  EXPECT_EQ(ClientHandshake(user, false).opening(), nul("AUTH EXTERNAL 31303030\r\nBEGIN\r\n"));
}

TEST(ClientHandshakeTest, IsDoneAfterOkWhereItAskedForNothingMore) {
  ClientHandshake client(user, false);
  std::string_view answers = "OK 0123456789abcdef0123456789abcdef\r\nl\1";
  EXPECT_EQ(client.advance(answers), HandshakeState::done);
  EXPECT_EQ(answers, "l\1");
  EXPECT_FALSE(client.passesDescriptors());
}

TEST(ClientHandshakeTest, ServerMayAgreeToDescriptorsOrNot) {
  for (const bool agrees : {true, false}) {
    const std::string all = std::string(ok) + (agrees ? "AGREE_UNIX_FD\r\n" : "ERROR \"no\"\r\n") + "l\1";
    for (std::size_t cut = 0; cut + 2 < all.size(); ++cut) {
      ClientHandshake client(user, true);
      std::string_view first = std::string_view(all).substr(0, cut);
      ASSERT_EQ(client.advance(first), HandshakeState::going_on) << "cut at " << cut;
      std::string_view rest = std::string_view(all).substr(cut - first.size());
      EXPECT_EQ(client.advance(rest), HandshakeState::done) << "cut at " << cut;
      EXPECT_EQ(rest, "l\1");
      EXPECT_EQ(client.passesDescriptors(), agrees);
    }
  }
}

TEST(ClientHandshakeTest, OtherAnswersEnd) {
  for (const std::string_view text :
       {"REJECTED EXTERNAL\r\n", "DATA\r\n", "ERROR\r\n", "OKAY\r\n", "\r\n", "OK 12\r\nREJECTED\r\n",
        "OK 12\r\nAGREE_UNIX_FDS\r\n", "OK 12\r\nAGREE_UNIX_FD now\r\n", "OK 12\r\nOK 12\r\n"}) {
    ClientHandshake client(user, true);
    std::string_view answers = text;
    EXPECT_EQ(client.advance(answers), HandshakeState::failed) << text;
  }
}

TEST(ClientHandshakeTest, AnswersTake16KiBAtMostWithLineEnds) {
  const std::string end = "\r\nAGREE_UNIX_FD\r\n";
  for (const std::size_t size : {16'384U, 16'385U}) {
    const std::string all = "OK " + std::string(size - 3 - end.size(), 'x') + end;
    const HandshakeState expected = size == 16'384 ? HandshakeState::done : HandshakeState::failed;
    ClientHandshake at_once(user, true);
    std::string_view answers = all;
    EXPECT_EQ(at_once.advance(answers), expected);
    ClientHandshake line_by_line(user, true);
    std::string_view first = std::string_view(all).substr(0, all.size() - end.size() + 2);
    EXPECT_EQ(line_by_line.advance(first), HandshakeState::going_on);
    std::string_view second = std::string_view(all).substr(all.size() - end.size() + 2);
    EXPECT_EQ(line_by_line.advance(second), expected);
  }
}

TEST(ClientHandshakeTest, AnswerWithoutEndIsBounded) {
  for (const char* const before : {"", "OK 12\r\n"}) {
    const std::string endless = std::string(before) + std::string(16'385 - std::strlen(before), 'x');
    ClientHandshake client(user, true);
    std::string_view answers = std::string_view(endless).substr(0, 16'384);
    EXPECT_EQ(client.advance(answers), HandshakeState::going_on);
    std::string_view rest = std::string_view(endless).substr(16'384 - answers.size());
    EXPECT_EQ(client.advance(rest), HandshakeState::failed);
  }
}

TEST(HandshakeTest, BothSidesUnderstandEachOther) {
  for (const bool takes : {true, false}) {
    ServerHandshake server(user, std::string(32, 'a'), takes);
    ClientHandshake client(user, true);
    const std::string opening = client.opening();
    std::string_view said = opening;
    std::string output;
    EXPECT_EQ(server.advance(said, output), HandshakeState::done);
    std::string_view answers = output;
    EXPECT_EQ(client.advance(answers), HandshakeState::done);
    EXPECT_EQ(client.passesDescriptors(), takes);
    EXPECT_EQ(server.passesDescriptors(), takes);
  }
}

}  // namespace
}  // namespace kelvane::wire
