#pragma once

// What the daemon exports to clients and services: the seven remote methods, and beside each group of them
// the entry points through which the daemon's own parts do the same. The definitions are in one file per
// subject: service_checkin.cpp, client_requests.cpp, state_store.cpp.
//
// The registry, its queues and the settings belong to the central object, which derives from this class and
// hands them out through the accessors below.
//
// Remote methods run on the queue of the connection that called; `xpc::Connection::current()` is the caller.

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "interface/held_record.h"
#include "interface/turns.h"
#include "operations/persistent_state.h"
#include "operations/purge_operation.h"
#include "platform/dispatch/queue.h"
#include "support/protocols.h"

namespace kelvane {

class UserDefaults;

/// Purge token to the operation that runs under it.
using PurgeOperations = std::vector<std::pair<Value, std::shared_ptr<KelvanePurgeOperation>>>;

class ClientInterface : public KelvaneClientProtocol,
                        public PersistentState,
                        public std::enable_shared_from_this<ClientInterface> {
 public:
  // --- the remote methods, in the protocol's order ---

  void clientCheckin(std::string serviceID, xpc::Endpoint endpoint, Dictionary info,
                     Reply<std::optional<Dictionary>> reply) override;
  void clientPurgeableSpace(Dictionary info, Reply<std::optional<Dictionary>> reply) override;
  void clientItemizedPurgeableSpace(Dictionary info, Reply<std::optional<Dictionary>> reply) override;
  void clientPurge(Dictionary info, Reply<std::optional<Dictionary>> reply) override;
  /// The reply may be empty.
  void clientCancelPurge(Dictionary info, Reply<> reply) override;
  void clientSetState(Value value, std::string key, Reply<> reply) override;
  void clientGetState(xpc::Anything key, Reply<Value> reply) override;

  // --- service connections ---

  /// Pings the service, and calls `finished` once: with true when it has answered, with false when its
  /// connection has ended instead. There is no time limit while the connection lasts.
  static void pingService(const std::shared_ptr<KelvaneServiceProtocol>& proxy,
                          std::function<void(bool pong)> finished);
  /// Notifies every service that asked for that name. Returns at once; nothing is reported back. `call`, if
  /// any, caused this, and counts as unfinished until it is done.
  void notifyRecipients(const std::string& name, const Value& value, const xpc::CurrentCall& call = {});

  // --- purging ---

  using PurgeCallback = std::function<void(const std::optional<Dictionary>& result)>;
  using ResultHandler = std::function<void(const std::optional<Dictionary>& result)>;
  /// Runs one purge, after all earlier ones, and calls `finished` with its result on `purge_queue`: with
  /// nothing when the request was refused. The callback, if any, gets each service's reply and then the
  /// result. Never blocks.
  void purge(Dictionary info, PurgeCallback callback, ResultHandler finished);

  // --- purgeable space ---

  /// Finds out, after all earlier questions, what the services could free on the info's volume, and calls
  /// `finished` with it on `purgeable_queue`: with nothing when the request was refused. Never blocks.
  void totalAvailable(Dictionary info, ResultHandler finished);

  // --- the state store, for callers that run on `defaults_queue`; a call from elsewhere is fatal ---

  /// `call`, if any, carried the value, and counts as unfinished until everything is done.
  void _clientSetState(const Value& value, const std::string& key, const Reply<>& reply,
                       const xpc::CurrentCall& call = {});
  void _clientGetState(const Value& key, const Reply<Value>& reply);
  void clientSetStateSync(const StateObject& value, const std::string& key) override;
  [[nodiscard]] StateObject clientGetStateSync(const std::string& key) override;
  void settleState() override;

  // --- what the central object provides ---

  [[nodiscard]] virtual const dispatch_queue_t& collection_queue() const = 0;
  [[nodiscard]] virtual const dispatch_queue_t& purge_queue() const = 0;
  [[nodiscard]] virtual const dispatch_queue_t& purgeable_queue() const = 0;
  [[nodiscard]] virtual const dispatch_queue_t& notify_queue() const = 0;
  [[nodiscard]] virtual const dispatch_queue_t& daemons_queue() const = 0;
  /// Only on `collection_queue`.
  [[nodiscard]] virtual Services& services() = 0;
  /// Only on `daemons_queue`.
  [[nodiscard]] virtual const std::set<std::string>& daemons() const = 0;
  /// Only on `collection_queue`. Absent: nothing is ever found in it or kept in it.
  [[nodiscard]] virtual std::optional<PurgeOperations>& purgeOperations() = 0;
  /// Null when the settings could not be opened. Used on `defaults_queue` only.
  [[nodiscard]] virtual const std::shared_ptr<UserDefaults>& userDefaults() const = 0;
  [[nodiscard]] virtual const Dictionary& default_values() const = 0;
  /// A snapshot, taken on `collection_queue`.
  [[nodiscard]] virtual Services copyServices() = 0;

 private:
  struct CheckIn;
  void checkIn(CheckIn request);
  std::shared_ptr<KelvaneServiceProtocol> connect(const std::shared_ptr<KVService>& service);
  Block recordRemoval(const std::shared_ptr<KVService>& service, const char* log_text);
  void answerPurgeableSpace(Dictionary info, const char* entitlement, const char* selector,
                            Reply<std::optional<Dictionary>> reply);
  std::optional<Dictionary> countAvailable(const Dictionary& info);
  void purgeServices(Services services, Dictionary info, PurgeCallback callback, ResultHandler finished);
  std::optional<Dictionary> runPurge(const Dictionary& info,
                                     const std::shared_ptr<KelvanePurgeOperation>& operation,
                                     const PurgeCallback& callback);
  std::shared_ptr<KelvanePurgeOperation> operationOf(const Value& token);
  void takeTurn(Block item);
  void answerState(const Value& value, const Reply<Value>& reply, uid_t user);
  [[nodiscard]] std::string excessOfState(const Value& value, const std::string& key, uid_t user) const;
  [[nodiscard]] std::string store(const Value& value, const std::string& key);
  [[nodiscard]] Value storedState();
  void sayNotices();
  [[nodiscard]] StateObject unarchived(const Data& archive);

  // Purges are prepared here, one at a time, so that they run in the order of their requests.
  const dispatch_queue_t preparation_queue_ = dispatch_queue_create("com.orvel.kelvane_preparation");
  Turns turns_;  // at defaults_queue
  // One at a time, since each may take as much memory as the largest message.
  const dispatch_queue_t large_answers_queue_ = dispatch_queue_create("com.orvel.kelvane_large_answers");
  Turns large_answers_;
  HeldRecord held_record_;  // only on defaults_queue
};

}  // namespace kelvane
