// Messages to the service manager, with a socket of the test in its place.

#include "platform/host/service_manager.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <string>
#include <thread>

#include "tests/foundation/temporary_directory.h"
#include "tests/support/scoped_environment.h"

namespace kelvane::tests {
namespace {

/// A service manager that listens at that path, or at that abstract name when it begins with "@".
class Manager {
 public:
  explicit Manager(std::string address) : environment_("NOTIFY_SOCKET", address) {
    sockaddr_un place{};
    place.sun_family = AF_UNIX;
    std::copy(address.begin(), address.end(), std::begin(place.sun_path));
    const bool is_abstract = address.starts_with('@');
    if (is_abstract) place.sun_path[0] = '\0';
    const std::size_t size = is_abstract ? offsetof(sockaddr_un, sun_path) + address.size() : sizeof place;
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&place), static_cast<socklen_t>(size)),
              0);
  }
  /// From now on messages come with the credentials that they were sent with. Before, the kernel adds none.
  void askForCredentials() const {
    const int on = 1;
    EXPECT_EQ(::setsockopt(socket_.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on), 0);
  }

  struct Message {
    std::string text;
    ucred sender;
  };
  /// The next message; an empty one when there is none.
  [[nodiscard]] Message received() const {
    std::string text(4096, '\0');
    iovec part{text.data(), text.size()};
    alignas(cmsghdr) std::array<char, 256> control{};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    const ssize_t size = ::recvmsg(socket_.get(), &header, MSG_DONTWAIT);
    Message message{text.substr(0, size > 0 ? static_cast<std::size_t>(size) : 0), {}};
    const cmsghdr* const part_of = CMSG_FIRSTHDR(&header);
    if (size >= 0 && part_of != nullptr && part_of->cmsg_type == SCM_CREDENTIALS)
      std::memcpy(&message.sender, CMSG_DATA(part_of), sizeof message.sender);
    return message;
  }

 private:
  const FileDescriptor socket_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  const ScopedEnvironment environment_;
};

class ServiceManager : public testing::Test {
 protected:
  const test::TemporaryDirectory directory_;
};

TEST_F(ServiceManager, IsToldThatStartUpIsOver) {
  const Manager manager(directory_ / "notify");
  EXPECT_TRUE(notifyReady());
  EXPECT_EQ(manager.received().text, "READY=1");
  EXPECT_EQ(manager.received().text, "");
}

TEST_F(ServiceManager, IsToldThatTheProcessLives) {
  const Manager manager(directory_ / "notify");
  EXPECT_TRUE(notifyAlive());
  EXPECT_EQ(manager.received().text, "WATCHDOG=1");
}

TEST_F(ServiceManager, IsToldAStatusThatCannotBecomeAnotherAssignment) {
  const Manager manager(directory_ / "notify");
  EXPECT_TRUE(notifyStatus("12 services\nMAINPID=1"));
  EXPECT_EQ(manager.received().text, "STATUS=12 services MAINPID=1");
  EXPECT_TRUE(notifyStatus(std::string(1 << 20, 'x')));
  EXPECT_EQ(manager.received().text, "STATUS=" + std::string(1024, 'x'));
}

TEST_F(ServiceManager, IsFoundInTheAbstractNameSpace) {
  const Manager manager("@kelvane-test-" + std::to_string(::getpid()));
  EXPECT_TRUE(notifyReady());
  EXPECT_EQ(manager.received().text, "READY=1");
}

TEST_F(ServiceManager, IsFoundAtTheLongestPathAndName) {
  constexpr std::size_t longest = sizeof sockaddr_un::sun_path - 1;
  std::string path = directory_ / "";
  path.resize(longest, 'x');
  const Manager at_path(path);
  EXPECT_TRUE(notifyReady());
  EXPECT_EQ(at_path.received().text, "READY=1");
  std::string name = "@kelvane-test-" + std::to_string(::getpid());
  name.resize(longest + 1, 'x');
  const Manager at_name(name);
  EXPECT_TRUE(notifyReady());
  EXPECT_EQ(at_name.received().text, "READY=1");
}

TEST_F(ServiceManager, LearnsWhichProcessTellsIt) {
  const Manager manager(directory_ / "notify");
  ASSERT_TRUE(notifyReady());
  manager.askForCredentials();
  const ucred sender = manager.received().sender;
  EXPECT_EQ(sender.pid, ::getpid());
  EXPECT_EQ(sender.uid, ::getuid());
  EXPECT_EQ(sender.gid, ::getgid());
}

TEST_F(ServiceManager, ThatNobodyNamesIsNotTold) {
  const ScopedEnvironment environment("NOTIFY_SOCKET", std::nullopt);
  EXPECT_FALSE(notifyReady());
  EXPECT_FALSE(notifyAlive());
  EXPECT_FALSE(notifyStatus("idle"));
}

TEST_F(ServiceManager, AnAddressThatIsNotALocalSocketsIsNone) {
  const ScopedEnvironment environment("NOTIFY_SOCKET", "");
  for (const std::string& address :
       {std::string(), std::string("@"), std::string("notify"), std::string("./notify"),
        std::string("vsock:2:1234"), "/" + std::string(107, 'x'), "@" + std::string(108, 'x'),
        "/" + std::string(1 << 20, 'x'), directory_ / "missing", directory_ / ""}) {
    environment.set(address);
    EXPECT_FALSE(notifyReady()) << address.substr(0, 200);
    EXPECT_FALSE(notifyAlive()) << address.substr(0, 200);
  }
}

TEST_F(ServiceManager, ThatReadsNothingIsNotWaitedForWithASignOfLife) {
  const Manager manager(directory_ / "notify");
  int sent = 0;
  while (sent < 1'000'000 && notifyAlive()) ++sent;
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, 1'000'000);
  EXPECT_FALSE(notifyStatus("idle"));
}

TEST_F(ServiceManager, ThatIsBusyIsWaitedForWithReadiness) {
  const Manager manager(directory_ / "notify");
  while (notifyAlive()) continue;
  std::atomic<bool> begun = false;
  std::thread reader([&] {
    while (!begun) continue;
    static_cast<void>(manager.received());
  });
  begun = true;
  EXPECT_TRUE(notifyReady());
  reader.join();
}

class Patience : public testing::Test {
 protected:
  static std::optional<std::uint64_t> of(const std::optional<std::string>& microseconds,
                                         const std::optional<std::string>& process) {
    const ScopedEnvironment time("WATCHDOG_USEC", microseconds);
    const ScopedEnvironment whose("WATCHDOG_PID", process);
    return serviceManagerPatience();
  }
  const std::string own_ = std::to_string(::getpid());
};

TEST_F(Patience, IsWhatTheEnvironmentSaysForThisProcess) {
  EXPECT_EQ(of("120000000", own_), 120'000'000U);
  EXPECT_EQ(of("120000000", std::nullopt), 120'000'000U);
  EXPECT_EQ(of("1", own_), 1U);
  EXPECT_EQ(of("18446744073709551614", own_), 18'446'744'073'709'551'614U);
}

TEST_F(Patience, IsNoneWithoutTheVariableOrForAnotherProcess) {
  EXPECT_EQ(of(std::nullopt, own_), std::nullopt);
  EXPECT_EQ(of("120000000", std::to_string(::getppid())), std::nullopt);
}

constexpr std::array<const char*, 14> no_numbers = {"",
                                                    " ",
                                                    "-1",
                                                    "+1",
                                                    "0x1",
                                                    "1 ",
                                                    " 1",
                                                    "1.5",
                                                    "1e3",
                                                    "99999999999999999999999",
                                                    "18446744073709551616",
                                                    "one",
                                                    "1\n",
                                                    "1000us"};

TEST_F(Patience, IsNoneForWhatIsNoNumber) {
  for (const char* const text : no_numbers) {
    EXPECT_EQ(of(text, own_), std::nullopt) << text;
    EXPECT_EQ(of("120000000", text), std::nullopt) << text;
  }
  EXPECT_EQ(of("0", own_), std::nullopt);
  EXPECT_EQ(of("18446744073709551615", own_), std::nullopt) << "the service manager's word for never";
  // Of the width of a process ID, this would be the own one.
  EXPECT_EQ(of("120000000", std::to_string(::getpid() + (std::uint64_t{1} << 32))), std::nullopt);
}

}  // namespace
}  // namespace kelvane::tests
