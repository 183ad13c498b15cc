// Uses a little of everything that the library gives out, the parts that cross its boundary above all: values
// made on one side and changed on the other, a handler that the library calls, what it throws, completions.

#include <kelvane/client.h>
#include <kelvane/folder_purge.h>
#include <kelvane/launch.h>
#include <kelvane/purge_report.h>
#include <kelvane/service.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>

using namespace kelvane;
using namespace kelvane::client;

namespace {

void expect(bool holds, const char* what) {
  std::printf("%s: %s\n", holds ? "so it is" : "IT IS NOT SO", what);
  if (!holds) std::exit(1);
}

void values() {
  Dictionary request = purgeRequest("/volume", 5, 2);
  const Dictionary copy = request;
  request.set(KELVANE_TOKEN, Array{1, "two", 3.5});
  expect(request != copy && copy.size() == 3, "a copy keeps what it had");
  expect(request[KELVANE_AMOUNT] == Value(5U), "numbers are equal whatever holds them");
  expect(Value(request).description().find("KELVANE_VOLUME = \"/volume\"") != std::string::npos,
         "a request describes itself");
  const Dictionary answer{{KELVANE_AMOUNT, 7}, {KELVANE_ELAPSED_TIME, 0.5}};
  expect(readPurgeReport(answer).freed == 7, "a report is read");
}

void requests(const std::string& nowhere) {
  Client daemon({nowhere});
  const auto answer = daemon.purge(purgeRequest("/volume", 5));
  expect(!answer && answer.error().kind == Failure::noDaemon, "there is no daemon");
  bool thrown = false;
  try {
    static_cast<void>(*answer);
  } catch (const std::logic_error&) {
    thrown = true;
  }
  expect(thrown, "a value that is not there is refused");
  std::promise<Failure> told;
  daemon.getState("key", [&](const Result<Value>& value) { told.set_value(value.error().kind); });
  expect(told.get_future().get() == Failure::noDaemon, "a completion is told the same");
  expect(LaunchSocket(nowhere).transactions().error().kind == Failure::noDaemon,
         "nor is the launch socket there");
}

class Waiting final : public ServiceHandler {
 public:
  std::optional<Purgeable> purgeable(const Request&, const Cancellation&) override { return {}; }
  std::uint64_t purge(const Request&, const Cancellation&) override { return 0; }
  void stateChanged(ServiceState state, const std::string&) override {
    if (state == ServiceState::waiting) waits.set_value();
  }
  std::promise<void> waits;
};

void service(const std::string& nowhere) {
  Waiting handler;
  ServiceOptions options;
  expect(!Service::start(handler, options), "a service without an ID does not start");
  options.id = "com.example.outside";
  expect(!Service::start(handler, options), "nor does one that does not say where its data is");
  options.all_volumes = true;
  options.daemon_socket = nowhere;
  const auto started = Service::start(handler, options);
  handler.waits.get_future().get();
  expect(bool(started), "a service waits for the daemon");
  const ServiceHandler& base = handler;
  expect(dynamic_cast<const Waiting*>(&base) != nullptr, "a handler is what it is");
}

void folder(const std::filesystem::path& folder) {
  std::ofstream(folder / "file") << std::string(10'000, 'x') << std::flush;
  const Cancellation never(std::make_shared<std::atomic<bool>>(false));
  const auto purged = purgeFolder(folder.string(), {}, never);
  expect(purged.files == 1 && std::filesystem::is_empty(folder), "a folder is purged");
}

}  // namespace

/// outside FOLDER: with an empty folder of its own.
int main(int count, char** arguments) {
  expect(count == 2, "there is a folder");
  const std::filesystem::path own = arguments[1];
  values();
  requests(own / "nobody.sock");
  service(own / "nobody.sock");
  folder(own);
  std::puts("all of it");
}
