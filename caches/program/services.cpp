#include "caches/program/services.h"

#include <fmt/format.h>
#include <algorithm>
#include <iterator>
#include <thread>

#include "caches/program/log.h"
#include "platform/host/service_manager.h"

namespace kelvane::caches {
namespace {

constexpr const char* id_prefix = "com.orvel.kelvane.caches.";
constexpr std::chrono::milliseconds look(10);

}  // namespace

std::string Services::start() {
  const std::vector<std::string> sockets = passedSocketNames();
  for (const std::string& socket : sockets) {
    if (std::string reason = serve(socket, sockets); !reason.empty()) return reason;
  }
  return {};
}

std::string Services::serve(const std::string& socket, const std::vector<std::string>& sockets) {
  SocketHolders holders = holdersOf(socket, sockets, store_);
  if (!holders.reason.empty()) logLine(fmt::format("{} gives nothing: {}", socket, holders.reason));
  Served served;
  served.handler = std::make_unique<HolderService>(std::move(holders.definitions), workers_, logEntry);
  client::ServiceOptions options;
  options.id = id_prefix + socket;
  options.passed_socket = socket;
  options.all_volumes = true;  // the workers check the volume of each open root
  auto service = client::Service::start(*served.handler, options);
  if (!service) return service.error().reason;
  served.service = std::move(*service);
  served_.push_back(std::move(served));
  return {};
}

std::optional<Services::Moment> Services::idleSince() const {
  Moment last = Moment::min();
  for (const Served& served : served_) {
    const auto since = served.service->idleSince();
    if (!since) return std::nullopt;
    last = std::max(last, *since);
  }
  return last;
}

bool Services::pauseIfIdle() {
  const bool paused = std::all_of(served_.begin(), served_.end(),
                                  [](const Served& served) { return served.service->pauseIfIdle(); });
  if (!paused) {
    for (const Served& served : served_) served.service->resume();
  }
  return paused;
}

void Services::finish(Moment deadline) {
  const auto ended = [](const Served& served) {
    served.service->cancelPurges();
    return served.service->pauseIfIdle();
  };
  // The daemon disconnects when it has its answer. Idle services stop accepting; the others continue.
  while (std::count_if(served_.begin(), served_.end(), ended) != std::ssize(served_) &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(look);
  }
}

}  // namespace kelvane::caches
