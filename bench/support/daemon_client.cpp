#include "bench/support/daemon_client.h"

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <utility>

#include "common/keys.h"

namespace kelvane::bench {
namespace {

Dictionary unlessRefused(const std::optional<Dictionary>& result) {
  if (result && !result->contains(KELVANE_ERROR)) return *result;
  std::fprintf(stderr, "the request was refused: %s\n",
               Value(result.value_or(Dictionary())).description().c_str());
  std::exit(1);
}

}  // namespace

DaemonClient::DaemonClient(const std::string& socket)
    : connection_(xpc::Connection::initWithSocketPath(socket)) {
  connection_->resume();
  daemon_ =
      connection_->remoteObjectProxyWithErrorHandler<KelvaneClientProtocol>([](const xpc::Error& error) {
        std::fprintf(stderr, "the daemon failed: %s\n", error.description().c_str());
        std::exit(1);
      });
}

DaemonClient::~DaemonClient() { connection_->invalidate(); }

void DaemonClient::checkIn(const std::string& ID, const xpc::Endpoint& endpoint) {
  daemon_->clientCheckin(ID, endpoint, {{service_kind_purge, true}},
                         [this](const auto&) { dispatch_semaphore_signal(answered_); });
  await();
}

std::uint64_t DaemonClient::purge(const std::string& volume, std::uint64_t amount) {
  std::uint64_t purged = 0;
  daemon_->clientPurge({{KELVANE_VOLUME, volume}, {KELVANE_AMOUNT, amount}, {KELVANE_URGENCY, 1}},
                       [&](const std::optional<Dictionary>& result) {
                         purged = unlessRefused(result)[KELVANE_AMOUNT].unsignedLongLongValue();
                         dispatch_semaphore_signal(answered_);
                       });
  await();
  return purged;
}

Dictionary DaemonClient::purgeableSpace(const std::string& volume) {
  Dictionary answer;
  daemon_->clientPurgeableSpace({{KELVANE_VOLUME, volume}}, [&](const std::optional<Dictionary>& result) {
    answer = unlessRefused(result);
    dispatch_semaphore_signal(answered_);
  });
  await();
  return answer;
}

void DaemonClient::setState(const Value& value, const std::string& key) {
  daemon_->clientSetState(value, key, [this] { dispatch_semaphore_signal(answered_); });
  await();
}

Value DaemonClient::state(const std::string& key) {
  Value state;
  daemon_->clientGetState(xpc::Anything{key}, [&](Value value) {
    state = std::move(value);
    dispatch_semaphore_signal(answered_);
  });
  await();
  return state;
}

void DaemonClient::await() { static_cast<void>(dispatch_semaphore_wait(answered_, DISPATCH_TIME_FOREVER)); }

}  // namespace kelvane::bench
