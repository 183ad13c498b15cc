#include "support/listener.h"

#include <utility>

#include "platform/host/service_manager.h"
#include "support/entitlements.h"
#include "support/log.h"
#include "support/paths.h"
#include "support/refusal_log.h"

namespace kelvane {
namespace {

constexpr const char* passed_socket_name = "kelvane.socket";

std::shared_ptr<xpc::Listener> makeListener() {
  if (FileDescriptor passed = takePassedSocket(passed_socket_name)) {
    auto listener = xpc::Listener::initWithListeningSocket(std::move(passed));
    if (listener == nullptr) KVLog(3, "%s %s is not a listening socket", "resume", passed_socket_name);
    return listener;
  }
  const std::string path = runtimeDirectory() + "/kelvane.sock";
  std::string reason;
  auto listener = xpc::Listener::initWithSocketPath(path, 0666, reason);
  if (listener == nullptr) KVLog(3, "%s unable to listen on %s: %s", "resume", path, reason);
  return listener;
}

}  // namespace

KelvaneListener::KelvaneListener(std::shared_ptr<KelvaneClientProtocol> object)
    : object_(std::move(object)) {}

KelvaneListener::~KelvaneListener() { invalidate(); }

std::shared_ptr<KelvaneListener> KelvaneListener::daemonListenerWithExportedObject(
    std::shared_ptr<KelvaneClientProtocol> object) {
  return std::shared_ptr<KelvaneListener>(new KelvaneListener(std::move(object)));
}

void KelvaneListener::addRequiredEntitlement(const std::string& name) { required_.push_back(name); }

bool KelvaneListener::resume() {
  listener_ = makeListener();
  if (listener_ == nullptr) return false;
  listener_->setAcceptHandler([required = required_](const xpc::PeerCredentials& peer) {
    if (peerIsEntitled(peer, required)) return true;
    KVLog(5, "%s refusing process %d of user %u, which lacks one of %@", "resume", peer.pid, peer.uid,
          required);
    return false;
  });
  listener_->setAccounts(*accounts_);
  listener_->setRefusalHandler(
      [accounts = accounts_, log = std::make_shared<RefusalLog>()](const xpc::PeerCredentials& peer) {
        log->refused(peer.uid, accounts->of(peer.uid)->limit(wire::Resource::connections));
      });
  listener_->setConnectionHandler([object = object_](const std::shared_ptr<xpc::Connection>& connection) {
    connection->setExportedObject<KelvaneClientProtocol>(object);
    connection->resume();
  });
  listener_->resume();
  return true;
}

void KelvaneListener::invalidate() {
  if (listener_ != nullptr) listener_->invalidate();
}

}  // namespace kelvane
