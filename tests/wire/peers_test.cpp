#include <gmock/gmock.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <csignal>
#include <functional>

#include "platform/wire/reader.h"
#include "tests/wire/peers.h"
#include "tests/wire/transport_fixture.h"

namespace kelvane::wire {
namespace {

using testing::ElementsAre;

struct Peer {
  const char* name;
  void (*serve)(const std::string& path);
  bool (*call)(const std::string& path);
};

/// A process that is ended and waited for.
class Process {
 public:
  explicit Process(const std::function<bool()>& run) : id_(::fork()) {
    if (id_ == 0) ::_exit(run() ? 0 : 1);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    if (id_ <= 0) return;
    ::kill(id_, SIGKILL);
    ::waitpid(id_, nullptr, 0);
  }
  /// Its exit status.
  int wait() {
    int status = -1;
    ::waitpid(std::exchange(id_, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
  }

 private:
  pid_t id_;
};

class PeersTest : public testing::TestWithParam<Peer> {
 protected:
  PeersTest() {
    std::string pattern = testing::TempDir() + "wire-peers-XXXXXX";
    directory_ = ::mkdtemp(pattern.data());
    path_ = directory_ + "/socket";
    address_.sun_family = AF_UNIX;
    std::memcpy(address_.sun_path, path_.c_str(), path_.size() + 1);
  }
  ~PeersTest() override { std::filesystem::remove_all(directory_); }

  /// As soon as the peer listens.
  FileDescriptor connectToPeer() {
    for (int i = 0; i < 20'000; ++i) {
      FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address_), sizeof address_) == 0)
        return socket;
      ::poll(nullptr, 0, 1);
    }
    return {};
  }
  FileDescriptor listen() {
    FileDescriptor listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::bind(listening.get(), reinterpret_cast<const sockaddr*>(&address_), sizeof address_), 0);
    EXPECT_EQ(::listen(listening.get(), 10), 0);
    return listening;
  }
  std::unique_ptr<Transport> makeTransport(FileDescriptor socket, Transport::Side side) {
    return std::make_unique<Transport>(std::move(socket), side, ::geteuid(), account_,
                                       TransportOptions{.takes_descriptors = true});
  }
  /// The text of the next reply; empty when the connection ended instead.
  static std::string waitForReply(Transport& transport) {
    std::string text;
    for (;;) {
      const auto outcome = transport.receive([&](Transport::Received& received) {
        EXPECT_EQ(received.message.header.type, MessageType::method_return);
        text = Reader(received.message, received.descriptors).readString();
        return false;  // replies may come together; each is waited for by itself
      });
      if (!text.empty() || outcome == Transport::Outcome::ended) return text;
      if (outcome == Transport::Outcome::drained && !waitFor(transport)) return "the peer does nothing";
    }
  }
  /// Until there is something to do; whether there is.
  static bool waitFor(Transport& transport) {
    pollfd polled{transport.socket(),
                  static_cast<short>(transport.wantsToWrite() ? POLLIN | POLLOUT : POLLIN), 0};
    if (::poll(&polled, 1, 60'000) != 1) return false;
    transport.flush();
    return true;
  }

  std::string directory_;
  std::string path_;
  sockaddr_un address_{};
  const std::shared_ptr<Account> account_ = std::make_shared<Account>(::geteuid(), small_limits);
};

TEST_P(PeersTest, ServerTakesHandshakeAndFirstCallAtOnceAndDescriptorsAfterwards) {
  const Process server([&] { return GetParam().serve(path_), false; });
  const auto transport = makeTransport(connectToPeer(), Transport::Side::client);
  int error = 0;
  Outgoing echo = makeCall("Echo", "first");
  ASSERT_EQ(transport->send(echo, error), 1U);
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
  const FileDescriptor reading(pipe[0]);
  FileDescriptor writing(pipe[1]);
  Outgoing write = makeCall("Write", "second", std::array<int, 1>{writing.get()});
  ASSERT_EQ(transport->send(write, error), 2U);
  writing.reset();
  EXPECT_EQ(waitForReply(*transport), "first") << transport->reason();
  EXPECT_EQ(waitForReply(*transport), "second") << transport->reason();
  char c = 0;
  EXPECT_EQ(::read(reading.get(), &c, 1), 1);
  EXPECT_EQ(c, 'x');
}

TEST_P(PeersTest, ServerTakesTheFirstWriteCutAtEveryPosition) {
  const Process server([&] { return GetParam().serve(path_), false; });
  for (const bool negotiates : {true, false}) {
    const std::string bytes = opening(negotiates) + callBytes("Echo", "cut");
    for (std::size_t cut = 1; cut < bytes.size(); ++cut) {
      FileDescriptor socket = connectToPeer();
      passTo(socket.get(), bytes.substr(0, cut));
      int unread = 1;
      for (int i = 0; unread > 0 && i < 10'000; ++i) {
        ASSERT_EQ(::ioctl(socket.get(), SIOCOUTQ, &unread), 0);
        if (unread > 0) ::poll(nullptr, 0, 1);
      }
      ASSERT_EQ(unread, 0);
      passTo(socket.get(), bytes.substr(cut));
      Transport transport(std::move(socket), Transport::Side::client, ::geteuid(), account_,
                          {.takes_descriptors = negotiates, .passes_descriptors = false});
      ASSERT_EQ(waitForReply(transport), "cut") << "cut at " << cut << ": " << transport.reason();
      EXPECT_EQ(transport.isEstablished(), true);
    }
  }
}

TEST_P(PeersTest, ClientIsAnsweredAndPassesDescriptors) {
  const FileDescriptor listening = listen();
  Process client([&] { return GetParam().call(path_); });
  FileDescriptor socket(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  const auto transport = makeTransport(std::move(socket), Transport::Side::server);
  std::vector<std::string> members;
  const auto answer = [&](Transport::Received& received) {
    members.emplace_back(received.message.header.member);
    Reader reader(received.message, received.descriptors);
    const std::string_view text = reader.readString();
    if (received.message.header.member == "Write") {
      EXPECT_EQ(::write(reader.takeDescriptor().get(), "x", 1), 1);
    }
    EXPECT_TRUE(reader.finish());
    Outgoing reply;
    Header header;
    header.type = MessageType::method_return;
    header.reply_serial = received.message.header.serial;
    header.signature = "s";
    Writer writer(reply, header);
    writer.writeString(text);
    EXPECT_EQ(writer.finish(), Writer::Fault::none);
    int error = 0;
    EXPECT_NE(transport->send(reply, error), 0U) << error;
    return true;
  };
  while (transport->receive(answer) != Transport::Outcome::ended) ASSERT_TRUE(waitFor(*transport));
  EXPECT_THAT(members, ElementsAre("Echo", "Write"));
  EXPECT_EQ(transport->reason(), "the peer closed the connection");
  EXPECT_EQ(client.wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(All, PeersTest,
                         testing::Values(Peer{"SdBus", peers::serveWithSdBus, peers::callWithSdBus},
                                         Peer{"Libdbus", peers::serveWithLibdbus, peers::callWithLibdbus},
                                         Peer{"Gdbus", peers::serveWithGdbus, peers::callWithGdbus}),
                         [](const auto& peer) { return std::string(peer.param.name); });

}  // namespace
}  // namespace kelvane::wire
