#include "platform/xpc/endpoint.h"

#include <dirent.h>
#include <sys/socket.h>
#include <array>
#include <cstring>

#include "tests/xpc/descriptors.h"
#include "tests/xpc/echo_server.h"

namespace kelvane::tests {
namespace {

/// Sends one packet with these descriptors through an endpoint.
void sendThrough(const xpc::Endpoint& endpoint, const std::vector<int>& descriptors) {
  char byte = 0;
  iovec data{&byte, 1};
  std::vector<char> control(CMSG_SPACE(descriptors.size() * sizeof(int)));
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
  std::memcpy(CMSG_DATA(header), descriptors.data(), descriptors.size() * sizeof(int));
  ASSERT_EQ(::sendmsg(endpoint.descriptor(), &message, 0), 1);
}

TEST(Endpoint, OpensNothingOnceTheListenerIsGone) {
  const auto listener = xpc::Listener::anonymousListener();
  const xpc::Endpoint endpoint = listener->takeEndpoint();
  listener->resume();
  EXPECT_TRUE(endpoint.open());
  listener->invalidate();
  EXPECT_FALSE(endpoint.open());
}

TEST(Endpoint, OpensNothingWhenItIsEmpty) {
  EXPECT_FALSE(xpc::Endpoint());
  EXPECT_FALSE(xpc::Endpoint().open());
  EXPECT_EQ(xpc::Endpoint().descriptor(), -1);
}

TEST(Endpoint, OpensNothingAndDoesNotBlockWhenNobodyReads) {
  const auto listener = xpc::Listener::anonymousListener();
  const xpc::Endpoint endpoint = listener->takeEndpoint();
  std::vector<FileDescriptor> open;
  for (FileDescriptor next = endpoint.open(); next; next = endpoint.open()) open.push_back(std::move(next));
  EXPECT_FALSE(open.empty());
}

TEST(Endpoint, TheListenerIsToldOnceWhenTheLastCopyIsDropped) {
  const auto listener = xpc::Listener::anonymousListener();
  std::atomic<int> told{0};
  const Signal closed;
  listener->setEndpointClosedHandler([&] {
    ++told;
    closed();
  });
  listener->resume();
  std::optional<xpc::Endpoint> one = listener->takeEndpoint();
  std::optional<xpc::Endpoint> copy = one;
  EXPECT_EQ(*one, *copy);
  one.reset();
  EXPECT_TRUE(copy->open());
  EXPECT_EQ(told, 0);
  copy.reset();
  closed.wait();
  EXPECT_EQ(told, 1);
}

TEST(Endpoint, IsGivenAwayOnce) {
  const auto listener = xpc::Listener::anonymousListener();
  EXPECT_TRUE(listener->takeEndpoint());
  EXPECT_FALSE(listener->takeEndpoint());
}

TEST(Endpoint, AConnectionMadeBeforeTheListenerIsResumedIsServedOnceItIs) {
  const auto listener = xpc::Listener::anonymousListener();
  const auto echo = std::make_shared<Echo>();
  listener->setConnectionHandler([&](const std::shared_ptr<xpc::Connection>& accepted) {
    accepted->setExportedObject<EchoProtocol>(echo);
    accepted->resume();
  });
  const auto early = xpc::Connection::initWithListenerEndpoint(listener->takeEndpoint());
  early->resume();
  const Signal replied;
  early->remoteObjectProxyWithErrorHandler<EchoProtocol>([](const xpc::Error&) { FAIL(); })
      ->echo({}, [&](const auto&) { replied(); });
  EXPECT_EQ(echo->calls, 0);
  listener->resume();
  replied.wait();
  early->invalidate();
  dispatch_sync(early->queue(), [] {});
}

TEST(Endpoint, TravelsThroughAConnectionAndBack) {
  EchoServer server(Door::path);
  const auto ours = xpc::Listener::anonymousListener();
  const Signal visited;
  ours->setConnectionHandler([&](const std::shared_ptr<xpc::Connection>&) { visited(); });
  ours->resume();
  const auto connection = server.connection();
  connection->resume();
  const Signal sent;
  connection->remoteObjectProxyWithErrorHandler<EchoProtocol>([](const xpc::Error&) { FAIL(); })
      ->openBack("name", ours->takeEndpoint(), [&] { sent(); });
  sent.wait();
  EXPECT_TRUE(server.echo().lastEndpoint().open());
  visited.wait();
  connection->invalidate();
  server.awaitAnEnd();
}

TEST(Endpoint, AnEmptyOneCannotBeSentWhichIsAnErrorOfItsCall) {
  EchoServer server(Door::path);
  const auto connection = server.connection();
  connection->resume();
  const Signal failed;
  connection->remoteObjectProxyWithErrorHandler<EchoProtocol>([&](const xpc::Error&) { failed(); })
      ->openBack("name", xpc::Endpoint(), [] { FAIL(); });
  failed.wait();
  EXPECT_TRUE(ask(connection, {}).reply);
  connection->invalidate();
  server.awaitAnEnd();
}

TEST(Endpoint, ASecondDescriptorInOnePacketIsNotKept) {
  EchoServer server(Door::endpoint);
  server.expectOthersAreServed();
  const std::size_t before = openDescriptors();
  const FileDescriptor file(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  for (int i = 0; i < 20; ++i) {
    sendThrough(server.endpoint(), {file.get(), file.get()});
    server.expectOthersAreServed();
  }
  EXPECT_LE(openDescriptors(), before + 1);  // ours
}

TEST(Endpoint, AnEmptyPacketEndsNothing) {
  EchoServer server(Door::endpoint);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(::send(server.endpoint().descriptor(), "", 0, 0), 0);
  server.expectOthersAreServed();
}

TEST(Endpoint, APacketWithoutADescriptorOrWithAWrongOneEndsNothing) {
  EchoServer server(Door::endpoint);
  ASSERT_EQ(::send(server.endpoint().descriptor(), "x", 1, 0), 1);
  const FileDescriptor lonely(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const FileDescriptor datagram(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const FileDescriptor file(::open("/proc/self/stat", O_RDONLY | O_CLOEXEC));
  for (const FileDescriptor* wrong : {&lonely, &datagram, &file}) {
    sendThrough(server.endpoint(), {wrong->get()});
    server.expectOthersAreServed();
  }
}

}  // namespace
}  // namespace kelvane::tests
