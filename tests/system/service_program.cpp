// A service in a process of its own, for tests: it owns a folder, and can behave well or badly.
//
//   service_program BEHAVIOUR ID FOLDER --daemon SOCKET     checks in
//   service_program BEHAVIOUR ID FOLDER --listen SOCKET     serves a declared service's socket
//
// BEHAVIOUR: "deletes" removes files until it has freed what it was asked for, and could free what its folder
// holds; "dies" ends when it is asked either; "silent" never answers either; "mute" never answers anything,
// the ping included; "deaf" does not even read its endpoint. It prints "registered", "pinged", "asked URGENCY
// AMOUNT" and "questioned URGENCY" as these happen.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "common/keys.h"
#include "platform/dispatch/queue.h"
#include "platform/xpc/listener.h"
#include "support/protocols.h"

namespace kelvane::tests {
namespace {

class TestService final : public KelvaneServiceProtocol {
 public:
  TestService(std::string behaviour, std::string folder)
      : behaviour_(std::move(behaviour)), folder_(std::move(folder)) {}

  void servicePurgeable(std::int32_t urgency, Dictionary, Reply<std::optional<Dictionary>> reply) override {
    std::printf("questioned %d\n", urgency);
    std::fflush(stdout);
    if (behaviour_ == "dies") std::_Exit(7);
    if (behaviour_ == "silent") {
      kept_.push_back(std::move(reply));
      return;
    }
    reply(Dictionary{{KELVANE_AMOUNT, bytesInFolder()}});
  }
  void servicePurge(std::int32_t urgency, Dictionary info, Reply<std::optional<Dictionary>> reply) override {
    const std::uint64_t asked = info[KELVANE_AMOUNT].unsignedLongLongValue();
    std::printf("asked %d %llu\n", urgency, static_cast<unsigned long long>(asked));
    std::fflush(stdout);
    if (behaviour_ == "dies") std::_Exit(7);
    if (behaviour_ != "deletes") {
      kept_.push_back(std::move(reply));
      return;
    }
    reply(Dictionary{{KELVANE_AMOUNT, deleteUpTo(asked)}});
  }
  void servicePeriodic(std::int32_t, Dictionary, Reply<std::optional<Dictionary>> reply) override {
    reply(std::nullopt);
  }
  void serviceCancelPurge(Reply<> reply) override { reply(); }
  void servicePing(Reply<> reply) override {
    std::puts("pinged");
    std::fflush(stdout);
    if (behaviour_ == "mute") {
      kept_pings_.push_back(std::move(reply));
    } else {
      reply();
    }
  }
  void serviceNotify(Dictionary notification, Reply<> reply) override {
    std::printf("notified %s\n", Value(notification).description().c_str());
    std::fflush(stdout);
    reply();
  }
  void serviceCallback(Dictionary, Reply<std::optional<Dictionary>> reply) override { reply(std::nullopt); }

 private:
  [[nodiscard]] std::uint64_t bytesInFolder() const {
    std::uint64_t bytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) bytes += entry.file_size();
    return bytes;
  }
  std::uint64_t deleteUpTo(std::uint64_t bytes) {
    std::uint64_t freed = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      if (freed >= bytes) break;
      const std::uint64_t size = entry.file_size();
      if (std::filesystem::remove(entry.path())) freed += size;
    }
    return freed;
  }

  const std::string behaviour_;
  const std::string folder_;
  std::vector<Reply<std::optional<Dictionary>>> kept_;
  std::vector<Reply<>> kept_pings_;
};

int serve(const std::vector<std::string>& arguments) {
  const std::string& ID = arguments[1];
  const auto service = std::make_shared<TestService>(arguments[0], arguments[2]);
  std::string reason;
  const bool declared = arguments[3] == "--listen";
  const auto listener = declared ? xpc::Listener::initWithSocketPath(arguments[4], 0666, reason)
                                 : xpc::Listener::anonymousListener();
  if (listener == nullptr) {
    std::printf("cannot listen: %s\n", reason.c_str());
    return 1;
  }
  listener->setConnectionHandler([service](const std::shared_ptr<xpc::Connection>& connection) {
    connection->setExportedObject<KelvaneServiceProtocol>(service);
    connection->resume();
  });
  if (arguments[0] != "deaf") listener->resume();
  if (declared) {
    std::puts("registered");
    std::fflush(stdout);
    dispatch_main();
  }
  const auto connection = xpc::Connection::initWithSocketPath(arguments[4]);
  connection->setInterruptionHandler([] { std::_Exit(0); });
  connection->resume();
  const auto daemon =
      connection->remoteObjectProxyWithErrorHandler<KelvaneClientProtocol>([](const xpc::Error& error) {
        std::printf("failed: %s\n", error.description().c_str());
        std::_Exit(1);
      });
  const Dictionary info{{"PURGE", true}, {KELVANE_NOTIFICATIONS, Array{KELVANE_CACHE_ENABLED}}};
  daemon->clientCheckin(ID, listener->takeEndpoint(), info, [](const std::optional<Dictionary>& reply) {
    std::printf("registered %s\n", reply ? Value(*reply).description().c_str() : "(nil)");
    std::fflush(stdout);
  });
  dispatch_main();
}

}  // namespace
}  // namespace kelvane::tests

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() != 5) {
    std::puts("usage: service_program BEHAVIOUR ID FOLDER --daemon|--listen SOCKET");
    return 2;
  }
  return kelvane::tests::serve(arguments);
}
