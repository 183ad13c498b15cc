#pragma once

// The base of every operation: one request, carried to the services that it concerns.
//
// An operation owns the request (`info`), the services that may take part, and the table of those that
// have a request outstanding, each with the callback that ends that request. It is made by
// `initWithInfo`, started once through its class's `startOperation`, and destroyed when its owner and the
// last outstanding request release it.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "kelvane/value.h"
#include "operations/service_request.h"
#include "operations/services.h"
#include "platform/dispatch/queue.h"

namespace kelvane {

class KelvaneOperation : public std::enable_shared_from_this<KelvaneOperation> {
 protected:
  struct Key {  // only initialisers make operations
    explicit Key() = default;
  };

 public:
  /// Null when the info is not a dictionary, or its volume is missing or not served; the caller reports it.
  static std::shared_ptr<KelvaneOperation> initWithInfo(const Value& info, Services services);

  explicit KelvaneOperation(Key /*key*/) {}
  virtual ~KelvaneOperation() = default;
  KelvaneOperation(const KelvaneOperation&) = delete;
  KelvaneOperation& operator=(const KelvaneOperation&) = delete;

  // --- services in flight. Any thread, but never from an item of `collection_queue`. ---

  /// With a callback, adds the service; false if it is already there, and the first callback stays. Without
  /// one, removes it without calling its callback; false if it is not there.
  bool updateInFlight(const std::string& identifier, Done cancelBlock);
  [[nodiscard]] bool isInFlight(const std::string& identifier) const;
  /// Calls the service's callback, on `collection_queue`, and removes it.
  void cancelInFlightService(const std::string& identifier);
  void cancelInFlights();
  [[nodiscard]] std::size_t inFlightCount() const;
  /// Whether services may be added; if not, adding one returns false.
  void setTakesServices(bool takes);

  /// Asks every service in flight to stop purging. Does not end their requests.
  virtual void cancelOperation();

  // --- properties ---

  [[nodiscard]] const Dictionary& info() const { return info_; }
  void setInfo(Dictionary info) { info_ = std::move(info); }
  [[nodiscard]] const Services& services() const { return services_; }
  void setServices(Services services) { services_ = std::move(services); }
  [[nodiscard]] const Dictionary& result() const { return result_; }
  void setResult(Dictionary result) { result_ = std::move(result); }
  [[nodiscard]] const InFlight& inFlight() const { return in_flight_; }
  void setInFlight(InFlight in_flight);
  [[nodiscard]] const std::string& volume() const { return volume_; }
  void setVolume(std::string volume) { volume_ = std::move(volume); }
  [[nodiscard]] std::int32_t urgencyLimit() const { return urgency_limit_; }
  void setUrgencyLimit(std::int32_t limit) { urgency_limit_ = limit; }
  [[nodiscard]] const dispatch_queue_t& collection_queue() const { return collection_queue_; }
  void setCollection_queue(dispatch_queue_t queue) { collection_queue_ = std::move(queue); }
  [[nodiscard]] const dispatch_queue_t& message_queue() const { return message_queue_; }
  void setMessage_queue(dispatch_queue_t queue) { message_queue_ = std::move(queue); }

 protected:
  /// The initialiser's work; false if the object must not be created.
  bool prepare(const Value& info, Services services);

  /// How many are in flight, without waiting for `collection_queue`; may be slightly outdated.
  [[nodiscard]] std::size_t inFlightNow() const { return in_flight_count_.load(std::memory_order_relaxed); }
  /// The identifiers in flight. Only on `collection_queue`.
  [[nodiscard]] Array inFlightIdentifiers() const;
  /// The table for the log. Only on `collection_queue`.
  [[nodiscard]] Dictionary inFlightTable() const;

 private:
  bool refuse(const char* error);
  bool takeVolume(const Value& info);
  void filterServices(Services given, bool is_quota_event);
  void noteInFlightCount() { in_flight_count_.store(in_flight_.size(), std::memory_order_relaxed); }

  // Constant once the operation has been started.
  Dictionary info_;
  Services services_;
  Dictionary result_;
  std::string volume_;
  std::int32_t urgency_limit_ = 3;
  dispatch_queue_t collection_queue_;
  dispatch_queue_t message_queue_;

  InFlight in_flight_;                           // only on collection_queue_
  bool takes_services_ = true;                   // only on collection_queue_
  std::atomic<std::size_t> in_flight_count_{0};  // written on collection_queue_, read anywhere
};

}  // namespace kelvane
