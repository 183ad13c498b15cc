#include "tests/attack/attacked_daemon.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>
#include <utility>

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;

constexpr auto patience = std::chrono::seconds(10);
constexpr auto pause = std::chrono::milliseconds(5);

void grantTo(uid_t user, const std::string& folder) {
  const std::string path = folder + "/entitlements.d/" + std::to_string(user) + ".plist";
  writeFile(path, propertyList("<key>user</key><integer>" + std::to_string(user) +
                               "</integer><key>com.orvel.private.Kelvane</key><array>"
                               "<string>CLIENT_ENTITLEMENT</string><string>SERVICE_ENTITLEMENT</string>"
                               "<string>PURGE_ENTITLEMENT</string><string>PURGEABLE_ENTITLEMENT</string>"
                               "<string>ITEMIZED_PURGEABLE_ENTITLEMENT</string></array>"));
  fs::permissions(path, fs::perms(0644));
}

std::vector<std::string> environmentWith(const std::string& settings, std::vector<std::string> environment) {
  fs::create_directories(settings + "/entitlements.d");
  for (const uid_t user : {::getuid(), attacker, bystander}) grantTo(user, settings);
  environment.push_back("CONFIGURATION_DIRECTORY=" + settings);
  environment.emplace_back("KELVANE_LOG_LEVEL=3");
  return environment;
}

/// Runs `work` on a thread that is that user, as the kernel sees it.
template <class Work>
void as(uid_t user, Work work) {
  std::thread([&] {
    // Not the library's function, which changes all threads.
    ASSERT_EQ(::syscall(SYS_setresuid, -1, user, -1), 0);
    work();
  }).join();
}

}  // namespace

AttackedDaemon::AttackedDaemon(const std::vector<std::string>& environment)
    : daemon_(built("kelvaned"), environmentWith(settings_.path(), environment)) {
  fs::permissions(fs::path(daemon_.runtimeFolder()).parent_path(), fs::perms(0755));
  // File descriptors that the first request opens must not be mistaken for leaks of an attack.
  auto warm_up = std::make_unique<Client>(daemon_);
  warm_up->setState("warm", "com.example.warm-up");
  EXPECT_TRUE(warm_up->isServed());
  const std::size_t without_it = descriptors() - 1;
  warm_up.reset();
  EXPECT_EQ(descriptorsWhenSettled(without_it), without_it);
}

std::size_t AttackedDaemon::descriptors() const {
  const fs::directory_iterator all("/proc/" + std::to_string(const_cast<Daemon&>(daemon_).process().id()) +
                                   "/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

std::size_t AttackedDaemon::descriptorsWhenSettled(std::size_t expected) const {
  const auto give_up = std::chrono::steady_clock::now() + patience;
  std::size_t open = descriptors();
  while (open != expected && std::chrono::steady_clock::now() < give_up) {
    std::this_thread::sleep_for(pause);
    open = descriptors();
  }
  return open;
}

std::size_t AttackedDaemon::peakMegabytes() const { return status("VmHWM:") / 1024; }

std::size_t AttackedDaemon::threads() const { return status("Threads:"); }

std::size_t AttackedDaemon::status(const std::string& name) const {
  std::ifstream status("/proc/" + std::to_string(const_cast<Daemon&>(daemon_).process().id()) + "/status");
  for (std::string word; status >> word;) {
    std::size_t number = 0;
    if (word == name && status >> number) return number;
  }
  ADD_FAILURE() << "the daemon has ended";
  return 0;
}

FileDescriptor connectedAs(uid_t user, const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  as(user, [&] {
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
        << std::strerror(errno);
  });
  return socket;
}

std::string authentication(uid_t user) {
  std::string hexadecimal;
  for (const char digit : std::to_string(user)) {
    hexadecimal += "3";
    hexadecimal += digit;
  }
  using namespace std::string_literals;
  return "\0AUTH EXTERNAL "s + hexadecimal + "\r\n";
}

RawPeer peerOf(const AttackedDaemon& daemon, uid_t user) {
  RawPeer peer(connectedAs(user, daemon.socket()));
  peer.send(authentication(user));
  EXPECT_EQ(peer.readLine().substr(0, 3), "OK ");
  peer.send("NEGOTIATE_UNIX_FD\r\n");
  EXPECT_EQ(peer.readLine(), "AGREE_UNIX_FD\r\n");
  peer.send("BEGIN\r\n");
  return peer;
}

std::size_t raiseDescriptorLimit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_cur;
}

}  // namespace kelvane::tests
