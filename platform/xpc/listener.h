#pragma once

#include <sys/types.h>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/dispatch/block.h"
#include "platform/dispatch/source.h"
#include "platform/foundation/file_descriptor.h"
#include "platform/wire/account.h"
#include "platform/xpc/connection.h"
#include "platform/xpc/endpoint.h"

namespace kelvane::xpc {

/// Accepts connections: from a socket in the file system, or, anonymously, through an endpoint. Thread-safe.
/// Accepted connections live on when the listener ends.
class Listener final : public std::enable_shared_from_this<Listener> {
 public:
  /// Creates the socket, replacing a dead one of the same name. On failure null, with the reason.
  static std::shared_ptr<Listener> initWithSocketPath(const std::string& path, mode_t mode,
                                                      std::string& reason);
  /// Takes a socket that already listens. Null if it is not a listening local stream socket.
  static std::shared_ptr<Listener> initWithListeningSocket(FileDescriptor socket);
  static std::shared_ptr<Listener> anonymousListener();
  ~Listener();

  // --- before `resume` ---

  /// Asked right after accept, before a byte is read; a refused peer is closed. On a thread of the pool.
  void setAcceptHandler(std::function<bool(const PeerCredentials&)> handler) {
    may_connect_ = std::move(handler);
  }
  /// Gets each new connection, to export an object on it and resume it. On a thread of the pool.
  void setConnectionHandler(std::function<void(const std::shared_ptr<Connection>&)> handler) {
    configure_ = std::move(handler);
  }
  /// Anonymous listeners: called once when no copy of the endpoint is left. On a thread of the pool.
  void setEndpointClosedHandler(Block handler) { endpoint_closed_ = std::move(handler); }
  /// The accounts to charge for connections, instead of the process-wide ones. They must outlive the
  /// listener.
  void setAccounts(wire::Accounts& accounts) { accounts_ = &accounts; }
  /// Called for each peer that is closed right after accept because its user is at the limit on connections.
  /// Runs on a pool thread, once for every such peer.
  void setRefusalHandler(std::function<void(const PeerCredentials&)> handler) {
    refused_ = std::move(handler);
  }
  void resume();

  // --- any time ---

  /// Anonymous listeners only. The listener keeps no copy: it ends when the last one given away is dropped.
  [[nodiscard]] Endpoint takeEndpoint();
  /// Stops accepting until `goOn`, if no connection waits to be accepted and every accepted one has reached
  /// the handler. Returns whether it has stopped. Not for anonymous listeners.
  [[nodiscard]] bool pauseIfNobodyWaits();
  void goOn();
  /// Stops accepting for good.
  void invalidate();

 private:
  explicit Listener(FileDescriptor socket, bool anonymous);
  void handleEvents();
  bool acceptOne();
  bool receiveSome();
  void endpointClosed();
  void admit(FileDescriptor socket);

  // Constant after `resume`.
  const bool anonymous_;
  std::function<bool(const PeerCredentials&)> may_connect_;
  std::function<void(const std::shared_ptr<Connection>&)> configure_;
  std::function<void(const PeerCredentials&)> refused_;
  wire::Accounts* accounts_ = &wire::Accounts::shared();
  std::string path_;  // to be removed with the listener; empty for none

  std::mutex mutex_;  // guards all below
  FileDescriptor socket_;
  Endpoint endpoint_;
  EventSource source_;
  Timer retry_;
  Block endpoint_closed_;
  bool paused_ = false;
  unsigned admitting_ = 0;  // connections on their way from `accept` to the handler
};

}  // namespace kelvane::xpc
