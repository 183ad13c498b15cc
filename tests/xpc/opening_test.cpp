// How a connection begins, seen from the other end.

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "platform/host/local_address.h"
#include "tests/foundation/temporary_directory.h"
#include "tests/xpc/echo.h"
#include "tests/xpc/raw_peer.h"

namespace kelvane::tests {
namespace {

using namespace std::string_literals;

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

/// What lies in the socket.
std::string waiting(int socket) {
  int size = 0;
  EXPECT_EQ(::ioctl(socket, SIOCINQ, &size), 0);
  std::string bytes(static_cast<std::size_t>(size), '\0');
  EXPECT_EQ(::recv(socket, bytes.data(), bytes.size(), MSG_PEEK | MSG_DONTWAIT), size > 0 ? size : -1);
  return bytes;
}

class Opening : public testing::Test {
 protected:
  Opening() {
    std::array<int, 2> pair{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()), 0);
    listener_ = FileDescriptor(pair[1]);
    connection_ = xpc::Connection::initWithListenerEndpoint(*xpc::Endpoint::adopt(FileDescriptor(pair[0])));
  }
  ~Opening() override {
    connection_->invalidate();
    dispatch_sync(connection_->queue(), [] {});
  }
  [[nodiscard]] std::shared_ptr<EchoProtocol> proxy() const {
    return connection_->remoteObjectProxyWithErrorHandler<EchoProtocol>([](const xpc::Error&) {});
  }
  /// The end that the listener got. It gets it when something was written.
  RawPeer& service() {
    if (!service_) service_.emplace(receiveDescriptor(listener_.get()));
    return *service_;
  }
  /// No end of a connection has arrived. A dropped endpoint shows as end of input.
  [[nodiscard]] bool listenerGotNothing() const {
    char byte = 0;
    const ssize_t length = ::recv(listener_.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return length == 0 || (length < 0 && errno == EAGAIN);
  }
  /// Up to BEGIN.
  void readHandshake() {
    EXPECT_EQ(service().readLine(), RawPeer::firstLine());
    EXPECT_EQ(service().readLine(), "NEGOTIATE_UNIX_FD\r\n");
    EXPECT_EQ(service().readLine(), "BEGIN\r\n");
  }

  std::shared_ptr<xpc::Connection> connection_;

 private:
  FileDescriptor listener_;
  std::optional<RawPeer> service_;
};

// On a thread of the pool, as in the daemon: nothing else runs before the call is made.
TEST_F(Opening, TheHandshakeWaitsForTheFirstCallAndGoesOutWithIt) {
  const Signal called;
  bool waited = false;
  std::string after;
  dispatch_async(dispatch_get_global_queue(0, 0), [&] {
    connection_->resume();
    waited = listenerGotNothing();
    proxy()->greet("you", nullptr);
    after = waiting(service().descriptor());
    called();
  });
  called.wait();
  EXPECT_TRUE(waited);
  const std::size_t begin = after.find("BEGIN\r\nl\1");
  EXPECT_NE(begin, std::string::npos);
  EXPECT_NE(after.find("greet", begin), std::string::npos);
}

TEST_F(Opening, OfAConnectionThatIsNeverResumedTheListenerHearsNothing) {
  EXPECT_TRUE(listenerGotNothing());
  connection_->invalidate();
  EXPECT_TRUE(listenerGotNothing());
}

TEST_F(Opening, TheHandshakeGoesOutByItselfWhenNobodyCalls) {
  connection_->resume();
  readHandshake();
  EXPECT_FALSE(connection_->wasEstablished());
  service().send("OK 00112233445566778899aabbccddeeff\r\nAGREE_UNIX_FD\r\n");
  while (!connection_->wasEstablished()) dispatch_sync(connection_->queue(), [] {});
}

TEST_F(Opening, ACallWithADescriptorWaitsUntilThePeerHasAgreedToTakeIt) {
  std::array<int, 2> pair{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()), 0);
  const FileDescriptor other(pair[1]);
  connection_->resume();
  // The endpoint is closed here before it is sent.
  proxy()->openBack("id", *xpc::Endpoint::adopt(FileDescriptor(pair[0])), nullptr);
  readHandshake();
  EXPECT_EQ(waiting(service().descriptor()), "");
  service().send("OK 00112233445566778899aabbccddeeff\r\nAGREE_UNIX_FD\r\n");
  service().awaitInput();
  std::array<char, 4096> bytes{};
  iovec data{bytes.data(), bytes.size()};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  ASSERT_GT(::recvmsg(service().descriptor(), &message, MSG_CMSG_CLOEXEC), 0);
  ASSERT_NE(CMSG_FIRSTHDR(&message), nullptr);
  int descriptor = -1;
  std::memcpy(&descriptor, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof descriptor);
  EXPECT_TRUE(xpc::Endpoint::adopt(FileDescriptor(descriptor)));
  EXPECT_NE(std::string(bytes.data(), bytes.size()).find("openBack"), std::string::npos);
}

TEST_F(Opening, APeerThatTakesNoDescriptorsEndsTheConnectionThatHasOneToPass) {
  std::array<int, 2> pair{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()), 0);
  const FileDescriptor other(pair[1]);
  const Signal interrupted;
  connection_->setInterruptionHandler([&] { interrupted(); });
  connection_->resume();
  proxy()->openBack("id", *xpc::Endpoint::adopt(FileDescriptor(pair[0])), nullptr);
  readHandshake();
  service().send("OK 00112233445566778899aabbccddeeff\r\nERROR\r\n");
  interrupted.wait();
}

TEST(OpeningByPath, AClientMayHaveMoreDescriptorsWaitingThanAPeerMay) {
  constexpr std::uint64_t calls = 600;
  ASSERT_GT(calls, wire::privilegedLimits().at(static_cast<std::size_t>(wire::Resource::descriptors)));
  const test::TemporaryDirectory directory;
  const auto address = LocalAddress::ofPath(directory / "never-accepts");
  const FileDescriptor listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::bind(listening.get(), address->get(), address->size()), 0);
  ASSERT_EQ(::listen(listening.get(), 1), 0);
  std::array<int, 2> pair{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()), 0);
  const FileDescriptor other(pair[1]);
  const xpc::Endpoint endpoint = *xpc::Endpoint::adopt(FileDescriptor(pair[0]));

  const auto connection = xpc::Connection::initWithSocketPath(directory / "never-accepts");
  const Signal invalidated;
  connection->setInvalidationHandler([&] { invalidated(); });
  connection->resume();
  std::vector<std::string> errors;
  const auto proxy = connection->remoteObjectProxyWithErrorHandler<EchoProtocol>(
      [&](const xpc::Error& error) { errors.push_back(error.name); });
  for (std::uint64_t i = 0; i < calls; ++i) proxy->openBack("id", endpoint, nullptr);
  connection->invalidate();
  invalidated.wait();
  EXPECT_EQ(errors, std::vector<std::string>(calls, xpc::error_disconnected));
}

}  // namespace
}  // namespace kelvane::tests
