#pragma once

// The central object, one per process: the queues, the settings, the registry of services and the listener.
//
// `services` is read and changed only on `collection_queue`, `daemons` only on `daemons_queue`, the
// settings are used only on `defaults_queue`; other code takes a snapshot of the services. Creation
// runs before any queue has work. The listener accepts connections from the end of creation, so
// requests may arrive before start-up continues.

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "interface/client_interface.h"
#include "kelvane/value.h"
#include "operations/operation.h"
#include "platform/dispatch/queue.h"
#include "support/listener.h"
#include "support/paths.h"

namespace kelvane {

/// Where the central object finds what it reads. The socket's and the settings' directories are those of
/// support/paths.h.
struct Environment {
  std::string root = "/";
  std::string internal_descriptors = "/OrvelInternal/Library/Kelvane/";
  std::string settings_directory = stateDirectory();
};

class Kelvane final : public ClientInterface {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// The only one of the process, made on the first call. Any thread.
  static const std::shared_ptr<Kelvane>& sharedKelvane();
  /// The environment for `sharedKelvane`. Must be set before the first call of that.
  static void setSharedEnvironment(Environment environment);

  static std::shared_ptr<Kelvane> init(const Environment& environment);
  explicit Kelvane(Key /*key*/) {}

  using DescriptorHandler = std::function<void(const Dictionary& descriptor)>;
  /// Passes every property list at any depth below the directory to the handler if its root is a dictionary,
  /// and logs one level-3 line for every other entry. `path` ends in "/".
  static void scanPlistsAtPath(const std::string& path, const DescriptorHandler& execBlock);

  [[nodiscard]] Services mutableServices() const;
  [[nodiscard]] Services copyServices() override { return mutableServices(); }

  /// The number of elements, read on `collection_queue`; must not be called on that queue.
  template <class Collection>
  [[nodiscard]] std::size_t requestsInFlight(const Collection& collection) const {
    return dispatch_sync(collection_queue_, [&] { return collection.size(); });
  }

  /// An event of the file-system stream. `handled` is called when all its purges are done.
  void handleVFSStreamXPCEvent(const Dictionary& event, Block handled);
  /// The bytes that services have reported as freed for such events so far. Any thread.
  [[nodiscard]] std::uint64_t bytesPurgedForEvents() const { return bytes_purged_for_events_; }
  /// The periodic maintenance of one volume.
  void performPeriodicsWithInfo(const Dictionary& info);

  /// Whether the listener accepts connections.
  [[nodiscard]] bool isListening() const { return is_listening_; }

  // --- the fields, in their order ---

  [[nodiscard]] const dispatch_queue_t& collection_queue() const override { return collection_queue_; }
  [[nodiscard]] const dispatch_queue_t& defaults_queue() const override { return defaults_queue_; }
  [[nodiscard]] const std::shared_ptr<KelvaneListener>& listener() const { return listener_; }
  void setListener(std::shared_ptr<KelvaneListener> listener) { listener_ = std::move(listener); }
  [[nodiscard]] const dispatch_queue_t& purge_queue() const override { return purge_queue_; }
  [[nodiscard]] const dispatch_queue_t& purgeable_queue() const override { return purgeable_queue_; }
  /// Nothing runs on it: periodic maintenance runs on its caller's thread.
  [[nodiscard]] const dispatch_queue_t& periodic_queue() const { return periodic_queue_; }
  [[nodiscard]] const dispatch_queue_t& notify_queue() const override { return notify_queue_; }
  [[nodiscard]] const dispatch_queue_t& daemons_queue() const override { return daemons_queue_; }
  [[nodiscard]] const std::string& rootPath() const { return root_path_; }
  [[nodiscard]] const std::shared_ptr<UserDefaults>& userDefaults() const override { return user_defaults_; }
  void setUserDefaults(std::shared_ptr<UserDefaults> defaults) { user_defaults_ = std::move(defaults); }
  [[nodiscard]] Services& services() override;
  void setServices(Services services);
  using Operations = std::vector<std::shared_ptr<KelvaneOperation>>;
  [[nodiscard]] const std::optional<Operations>& operations() const { return operations_; }
  void setOperations(std::optional<Operations> operations) { operations_ = std::move(operations); }
  [[nodiscard]] const std::set<std::string>& daemons() const override { return daemons_; }
  void setDaemons(std::set<std::string> daemons) { daemons_ = std::move(daemons); }
  [[nodiscard]] const Dictionary& default_values() const override { return default_values_; }
  void setDefault_values(Dictionary values) { default_values_ = std::move(values); }
  [[nodiscard]] const Dictionary& optOuts() const { return opt_outs_; }
  void setOptOuts(Dictionary opt_outs) { opt_outs_ = std::move(opt_outs); }
  [[nodiscard]] std::optional<PurgeOperations>& purgeOperations() override { return purge_operations_; }
  void setPurgeOperations(std::optional<PurgeOperations> operations) {
    purge_operations_ = std::move(operations);
  }

 private:
  void fill(const Environment& environment);
  void openUserDefaults(const std::string& directory);
  void createQueues();
  void readDescriptors(const std::vector<std::string>& directories);
  void openListener();
  struct EventPurges;
  void purgeNext(const std::shared_ptr<EventPurges>& event);

  // Constant after creation, except through the setters, which only the owner may use.
  dispatch_queue_t collection_queue_;
  dispatch_queue_t defaults_queue_;
  std::shared_ptr<KelvaneListener> listener_;
  dispatch_queue_t purge_queue_;
  dispatch_queue_t purgeable_queue_;
  dispatch_queue_t periodic_queue_;
  dispatch_queue_t notify_queue_;
  dispatch_queue_t daemons_queue_;
  std::string root_path_;
  std::shared_ptr<UserDefaults> user_defaults_;
  Services services_;                     // only on collection_queue_
  std::optional<Operations> operations_;  // never assigned
  std::set<std::string> daemons_;         // only on daemons_queue_
  Dictionary default_values_;
  Dictionary opt_outs_;                              // never changed
  std::optional<PurgeOperations> purge_operations_;  // only on collection_queue_; never assigned
  bool is_listening_ = false;
  std::atomic<std::uint64_t> bytes_purged_for_events_{0};
};

}  // namespace kelvane
