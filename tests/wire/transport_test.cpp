#include <gmock/gmock.h>

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

TEST_F(TransportTest, ClientSendsHandshakeAndFirstMessageInOneWrite) {
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

}  // namespace
}  // namespace kelvane::wire
