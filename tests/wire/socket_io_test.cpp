#include "platform/wire/socket_io.h"

#include <gmock/gmock.h>

#include "tests/wire/system_call_faults.h"
#include "tests/wire/transport_fixture.h"

namespace kelvane::wire {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

class SocketIoTest : public testing::Test {
 protected:
  SocketIoTest() { std::tie(ours_, peer_) = socketPair(); }

  ReadResult read(std::size_t most_descriptors = 0) {
    return readSocket(ours_.get(), buffer_, most_descriptors, descriptors_);
  }
  WriteResult write(std::string_view text, std::span<const int> descriptors = {}) {
    const std::array<std::span<const std::byte>, 1> parts{std::as_bytes(std::span(text))};
    return writeSocket(ours_.get(), parts, descriptors);
  }
  static void makeBlocking(int socket) {
    ASSERT_EQ(::fcntl(socket, F_SETFL, ::fcntl(socket, F_GETFL) & ~O_NONBLOCK), 0);
  }

  FileDescriptor ours_;
  FileDescriptor peer_;
  std::vector<std::byte> buffer_ = std::vector<std::byte>(1000);
  std::vector<FileDescriptor> descriptors_;
};

TEST_F(SocketIoTest, EmptySocketIsNotTheEnd) {
  EXPECT_EQ(read().error, EAGAIN);
  peer_.reset();
  EXPECT_EQ(read().error, 0);
  EXPECT_EQ(read().bytes, 0U);
}

TEST_F(SocketIoTest, InvalidSocketIsAnError) {
  ours_.reset();
  EXPECT_EQ(read().error, EBADF);
  EXPECT_EQ(write("x").error, EBADF);
}

TEST_F(SocketIoTest, InterruptedReadIsRepeated) {
  passTo(peer_.get(), "text");
  const SystemCallFault fault("recvmsg", EINTR, 3);
  EXPECT_EQ(read().bytes, 4U);
  EXPECT_EQ(SystemCallFault::failed(), 3);
}

TEST_F(SocketIoTest, InterruptedWriteIsRepeated) {
  const SystemCallFault fault("sendmsg", EINTR, 3);
  EXPECT_EQ(write("text").bytes, 4U);
  EXPECT_EQ(SystemCallFault::failed(), 3);
  EXPECT_EQ(readFrom(peer_.get()), "text");
}

/// The peer can do that where it made the socket pair and kept a copy of our end.
TEST_F(SocketIoTest, SocketThatWasMadeBlockingBlocksNobody) {
  makeBlocking(ours_.get());
  ::alarm(20);  // instead of hanging
  EXPECT_EQ(read().error, EAGAIN);
  WriteResult result;
  const std::string text(10'000, 'x');
  while (result.error == 0) result = write(text);
  EXPECT_EQ(result.error, EAGAIN);
  ::alarm(0);
}

TEST_F(SocketIoTest, MostDescriptorsAreTakenAndNoMore) {
  for (const std::size_t most : {1U, 2U, 15U, 16U}) {
    const Descriptors passed(most);
    passTo(peer_.get(), "x", passed.numbers);
    const ReadResult result = read(most);
    EXPECT_FALSE(result.dropped);
    EXPECT_EQ(result.passed, most);
    EXPECT_THAT(descriptors_, SizeIs(most));
    descriptors_.clear();

    const Descriptors more(most + 1);
    passTo(peer_.get(), "x", more.numbers);
    EXPECT_TRUE(read(most).dropped) << most;
    EXPECT_LE(descriptors_.size(), most);
    descriptors_.clear();
  }
}

TEST_F(SocketIoTest, KernelsMostDescriptorsPass) {
  const FileDescriptor null = openNull();
  const std::vector<int> numbers(most_passed_descriptors, null.get());
  passTo(peer_.get(), "x", numbers);
  const ReadResult result = read(1000);
  EXPECT_FALSE(result.dropped);
  EXPECT_THAT(descriptors_, SizeIs(most_passed_descriptors));
}

TEST_F(SocketIoTest, DescriptorsAreOnlyTakenOnRequest) {
  const std::size_t before = openDescriptors();
  passTo(peer_.get(), "x", Descriptors(3).numbers);
  const ReadResult result = read(0);
  EXPECT_TRUE(result.dropped);
  EXPECT_EQ(result.passed, 0U);
  EXPECT_THAT(descriptors_, IsEmpty());
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SocketIoTest, CredentialsAreUnasked) {
  const int on = 1;
  ASSERT_EQ(::setsockopt(ours_.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on), 0);
  passTo(peer_.get(), "x");
  const ReadResult result = read(16);
  EXPECT_TRUE(result.unasked);
  EXPECT_EQ(result.passed, 0U);
}

/// Since Linux 6.5 each read may bring a descriptor of the process that sent.
TEST_F(SocketIoTest, DescriptorOfTheSendingProcessIsUnaskedAndClosed) {
  constexpr int pass_process = 76;  // SO_PASSPIDFD
  const std::size_t before = openDescriptors();
  const int on = 1;
  const bool known = ::setsockopt(ours_.get(), SOL_SOCKET, pass_process, &on, sizeof on) == 0;
  passTo(peer_.get(), "x");
  const ReadResult result = read(16);
  EXPECT_EQ(result.bytes, 1U);
  EXPECT_EQ(result.unasked, known);
  EXPECT_EQ(result.passed, 0U);
  EXPECT_THAT(descriptors_, IsEmpty());
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SocketIoTest, WriteToAPeerThatIsGoneRaisesNoSignal) {
  peer_.reset();
  EXPECT_EQ(write("x").error, EPIPE);
}

}  // namespace
}  // namespace kelvane::wire
