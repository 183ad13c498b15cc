// The endpoint of a check-in is validated only after the caller's rights are checked.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <array>

#include "platform/foundation/file_descriptor.h"
#include "tests/attack/requests.h"
#include "tests/interface/interface_fixture.h"

namespace kelvane {
namespace {

using tests::RawPeer;
using tests::RawReply;

class CheckinEndpoint : public tests::InterfaceFixture {
 protected:
  void SetUp() override {
    InterfaceFixture::SetUp();
    peer_.emplace(socketPath());
    peer_->handshake();
  }
  void TearDown() override {
    peer_.reset();
    InterfaceFixture::TearDown();
  }
  static std::array<FileDescriptor, 3> unusable() {
    return {FileDescriptor(::open("/dev/null", O_RDWR | O_CLOEXEC)),
            FileDescriptor(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)),
            FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))};
  }
  void checkIn(std::uint32_t serial, const std::string& ID, const FileDescriptor& endpoint) {
    peer_->send(tests::checkIn(serial, ID).bytes(), {endpoint.get()});
  }
  /// The next message to come answers that call.
  RawReply answerTo(std::uint32_t serial) {
    const auto reply = peer_->receive();
    EXPECT_TRUE(reply);
    EXPECT_EQ(reply->reply_serial, serial);
    return reply.value_or(RawReply());
  }

  std::optional<RawPeer> peer_;
};

TEST_F(CheckinEndpoint, ThatCannotBeOneIsNoReasonToAnswerAnUnentitledCaller) {
  grant({CLIENT_ENTITLEMENT});
  std::uint32_t serial = 0;
  for (const FileDescriptor& endpoint : unusable()) {
    checkIn(++serial, "cache", endpoint);
    peer_->send(tests::getState(++serial, "key").bytes());
    EXPECT_EQ(answerTo(serial).type, 2);
  }
  EXPECT_EQ(log_.count(3, "clientCheckin:endpoint:info:reply: Connection is not entitled!"), 3u);
}

TEST_F(CheckinEndpoint, ThatCannotBeOneDoesNotMatterForADeclaredService) {
  registry_->daemons_ = {"declared"};
  grant({});
  std::uint32_t serial = 0;
  for (const FileDescriptor& endpoint : unusable()) {
    checkIn(++serial, "declared", endpoint);
    const RawReply reply = answerTo(serial);
    EXPECT_EQ(reply.type, 2);
    EXPECT_TRUE(reply.bytes.ends_with(std::string(8, '\0'))) << "an array without elements";
  }
  EXPECT_EQ(record("declared"), nullptr);
}

TEST_F(CheckinEndpoint, ThatCannotBeOneIsRefusedWithTheReason) {
  std::uint32_t serial = 0;
  for (const FileDescriptor& endpoint : unusable()) {
    checkIn(++serial, "cache", endpoint);
    const RawReply reply = answerTo(serial);
    EXPECT_EQ(reply.type, 3);
    EXPECT_NE(reply.bytes.find(xpc::error_invalid_arguments), std::string::npos);
    EXPECT_NE(reply.bytes.find("the endpoint is not a connected local SOCK_SEQPACKET socket"),
              std::string::npos);
  }
  EXPECT_EQ(record("cache"), nullptr);
}

}  // namespace
}  // namespace kelvane
