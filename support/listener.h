#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/wire/account.h"
#include "platform/xpc/listener.h"
#include "support/protocols.h"

namespace kelvane {

/// The daemon's listener: the socket that systemd hands over as "kelvane.socket", or else
/// $RUNTIME_DIRECTORY/kelvane.sock, mode 0666. Peers without every required entitlement are closed right
/// after accept, before a byte is read. So are peers whose user is at the limit on connections; this is
/// logged at level 3, at most once in ten seconds for each user. Used by one thread at a time.
class KelvaneListener {
 public:
  static std::shared_ptr<KelvaneListener> daemonListenerWithExportedObject(
      std::shared_ptr<KelvaneClientProtocol> object);
  /// Before `resume`.
  void addRequiredEntitlement(const std::string& name);
  /// Before `resume`: the accounts to charge for connections, instead of those that the process shares. They
  /// must outlive this.
  void setAccounts(wire::Accounts& accounts) { accounts_ = &accounts; }
  /// Starts accepting. A socket that cannot be made is logged at level 3 with path and reason; false then.
  bool resume();
  /// Accepts no more. What was accepted lives on.
  void invalidate();
  KelvaneListener(const KelvaneListener&) = delete;
  KelvaneListener& operator=(const KelvaneListener&) = delete;
  ~KelvaneListener();

 private:
  explicit KelvaneListener(std::shared_ptr<KelvaneClientProtocol> object);

  const std::shared_ptr<KelvaneClientProtocol> object_;
  std::vector<std::string> required_;                     // constant after `resume`
  wire::Accounts* accounts_ = &wire::Accounts::shared();  // constant after `resume`
  std::shared_ptr<xpc::Listener> listener_;               // null before `resume`
};

}  // namespace kelvane
