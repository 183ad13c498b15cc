#pragma once

#include <functional>
#include <string>
#include <vector>

#include "caches/definition.h"
#include "caches/definition_store.h"
#include "caches/program/purge_entry.h"
#include "caches/workers.h"
#include "kelvane/service.h"

namespace kelvane::caches {

/// The socket of the administrator's definitions that have no socket of their own.
inline constexpr const char* local_socket = "local";

/// The holders that a socket answers for.
struct SocketHolders {
  std::vector<Definition> definitions;
  std::string reason;  // why there are none
};
/// `sockets` are all that were handed over.
[[nodiscard]] SocketHolders holdersOf(const std::string& socket, const std::vector<std::string>& sockets,
                                      const DefinitionStore& store);

/// Answers the daemon for the holders of one socket. Without holders it answers 0.
class HolderService final : public client::ServiceHandler {
 public:
  using Log = std::function<void(const PurgeEntry&)>;

  /// `workers` must outlive this. `log` is called on any thread.
  HolderService(std::vector<Definition> definitions, Workers& workers, Log log);

  std::optional<client::Purgeable> purgeable(const client::Request& request,
                                             const client::Cancellation& cancellation) override;
  std::uint64_t purge(const client::Request& request, const client::Cancellation& cancellation) override;

 private:
  // Constant after construction.
  const std::vector<Definition> definitions_;
  Workers& workers_;  // several threads at a time
  const Log log_;
};

}  // namespace kelvane::caches
