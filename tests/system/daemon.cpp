#include "tests/system/daemon.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <utility>

#include "common/keys.h"
#include "platform/dispatch/group.h"
#include "platform/foundation/file_descriptor.h"

namespace kelvane::tests {
namespace {

constexpr std::chrono::seconds start_up_patience(20);

/// The service manager's end of the conversation.
FileDescriptor notificationSocket(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) std::abort();
  return socket;
}

}  // namespace

Daemon::Daemon(std::string program, std::vector<std::string> environment)
    : program_(std::move(program)), environment_(std::move(environment)) {
  const std::string& at = folder_.path();
  for (const char* part : {"/run", "/state", "/etc", "/etc/entitlements.d"}) {
    std::filesystem::create_directory(at + part);
    std::filesystem::permissions(at + part, std::filesystem::perms(0755));  // whatever the umask is
  }
  writeFile(at + "/etc/entitlements.d/tests.plist",
            propertyList("<key>user</key><integer>" + std::to_string(::getuid()) +
                         "</integer><key>com.orvel.private.Kelvane</key><array>"
                         "<string>CLIENT_ENTITLEMENT</string><string>SERVICE_ENTITLEMENT</string>"
                         "<string>PURGE_ENTITLEMENT</string><string>PURGEABLE_ENTITLEMENT</string>"
                         "<string>ITEMIZED_PURGEABLE_ENTITLEMENT</string></array>"));
  std::filesystem::permissions(at + "/etc/entitlements.d/tests.plist", std::filesystem::perms(0644));
  notifications_ = notificationSocket(at + "/ready");
  for (const std::string& variable :
       {"RUNTIME_DIRECTORY=" + at + "/run", "STATE_DIRECTORY=" + at + "/state",
        "CONFIGURATION_DIRECTORY=" + at + "/etc", "NOTIFY_SOCKET=" + at + "/ready",
        std::string("KELVANE_LOG_LEVEL=5"), std::string("KELVANE_LOW_SPACE=0%")}) {
    environment_.push_back(variable);
  }
  start();
}

void Daemon::restart(int signal) {
  process_->signal(signal);
  process_->wait();
  start();
}

void Daemon::start() {
  process_ = std::make_unique<Process>(std::vector<std::string>{program_}, environment_);
  ready_ = nextNotification(start_up_patience).value_or("").find("READY=1") != std::string::npos;
}

Daemon::~Daemon() = default;

std::optional<std::string> Daemon::nextNotification(std::chrono::milliseconds patience) {
  pollfd waiting{notifications_.get(), POLLIN, 0};
  char text[256] = {};
  if (::poll(&waiting, 1, static_cast<int>(patience.count())) != 1) return std::nullopt;
  const ssize_t length = ::recv(notifications_.get(), text, sizeof text, 0);
  if (length < 0) return std::nullopt;
  return std::string(text, static_cast<std::size_t>(length));
}

Client::Client(const Daemon& daemon)
    : connection_(xpc::Connection::initWithSocketPath(daemon.socket())),
      answered_(dispatch_semaphore_create(0)),
      ended_(dispatch_semaphore_create(0)) {
  connection_->setInvalidationHandler([ended = ended_] { dispatch_semaphore_signal(ended); });
  connection_->resume();
  daemon_ =
      connection_->remoteObjectProxyWithErrorHandler<KelvaneClientProtocol>([this](const xpc::Error& error) {
        failure_ = error.description();
        dispatch_semaphore_signal(answered_);
      });
}

Client::~Client() {
  connection_->invalidate();
  static_cast<void>(dispatch_semaphore_wait(ended_, DISPATCH_TIME_FOREVER));
}

void Client::startPurge(const Dictionary& info) {
  answer_.reset();
  daemon_->clientPurge(info, [this](std::optional<Dictionary> result) {
    answer_ = std::move(result);
    dispatch_semaphore_signal(answered_);
  });
}

std::optional<Dictionary> Client::finishPurge() {
  static_cast<void>(dispatch_semaphore_wait(answered_, DISPATCH_TIME_FOREVER));
  return answer_;
}

std::optional<Dictionary> Client::purge(const Dictionary& info) {
  startPurge(info);
  return finishPurge();
}

std::optional<Dictionary> Client::purgeableSpace(const Dictionary& info) {
  answer_.reset();
  daemon_->clientPurgeableSpace(info, [this](std::optional<Dictionary> result) {
    answer_ = std::move(result);
    dispatch_semaphore_signal(answered_);
  });
  static_cast<void>(dispatch_semaphore_wait(answered_, DISPATCH_TIME_FOREVER));
  return answer_;
}

void Client::setState(const Value& value, const std::string& key) {
  daemon_->clientSetState(value, key, [this] { dispatch_semaphore_signal(answered_); });
  static_cast<void>(dispatch_semaphore_wait(answered_, DISPATCH_TIME_FOREVER));
}

Value Client::state(const std::string& key) {
  Value state;
  daemon_->clientGetState(xpc::Anything{key}, [&](Value value) {
    state = std::move(value);
    dispatch_semaphore_signal(answered_);
  });
  static_cast<void>(dispatch_semaphore_wait(answered_, DISPATCH_TIME_FOREVER));
  return state;
}

bool Client::isServed() {
  bool served = false;
  daemon_->clientCancelPurge({}, [this, &served] {
    served = true;
    dispatch_semaphore_signal(answered_);
  });
  static_cast<void>(dispatch_semaphore_wait(answered_, DISPATCH_TIME_FOREVER));
  return served;
}

}  // namespace kelvane::tests
