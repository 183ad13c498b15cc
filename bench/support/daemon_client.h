#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/dispatch/group.h"
#include "platform/xpc/connection.h"
#include "support/protocols.h"

namespace kelvane::bench {

/// A client of the daemon that waits for each answer. Ends the program, with the reason, when there is none.
class DaemonClient {
 public:
  explicit DaemonClient(const std::string& socket);
  ~DaemonClient();
  DaemonClient(const DaemonClient&) = delete;
  DaemonClient& operator=(const DaemonClient&) = delete;

  void checkIn(const std::string& ID, const xpc::Endpoint& endpoint);
  /// The bytes that were freed, at urgency 1.
  std::uint64_t purge(const std::string& volume, std::uint64_t amount);
  Dictionary purgeableSpace(const std::string& volume);
  void setState(const Value& value, const std::string& key);
  Value state(const std::string& key);

 private:
  void await();

  const dispatch_semaphore_t answered_ = dispatch_semaphore_create(0);
  const std::shared_ptr<xpc::Connection> connection_;
  std::shared_ptr<KelvaneClientProtocol> daemon_;
};

}  // namespace kelvane::bench
