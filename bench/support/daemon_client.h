#pragma once

#include <cstdint>
#include <string>

struct sd_bus;
struct sd_bus_message;

namespace kelvane::bench {

/// A client of the daemon that waits for each answer: single-threaded, with nothing but the bus library, so
/// that what is measured is the daemon's. Ends the program, with the reason, when there is no answer.
class DaemonClient {
 public:
  explicit DaemonClient(const std::string& socket);
  /// Of a stand-in with that name on a message bus.
  DaemonClient(const std::string& bus_socket, const std::string& name);
  ~DaemonClient();
  DaemonClient(const DaemonClient&) = delete;
  DaemonClient& operator=(const DaemonClient&) = delete;

  /// Checks a service in that purges.
  void checkIn(const std::string& ID, int endpoint);
  /// The bytes that were freed, at urgency 1.
  std::uint64_t purge(const std::string& volume, std::uint64_t amount);
  /// KELVANE_TOTAL_AVAILABLE; every other entry of the answer is read as well.
  std::int64_t purgeableSpace(const std::string& volume);
  void setState(const std::string& value, const std::string& key);
  void removeState(const std::string& key);
  std::string state(const std::string& key);

 private:
  [[nodiscard]] sd_bus_message* message(const char* method) const;
  /// Sends the message and drops it; the answer is the caller's.
  sd_bus_message* call(sd_bus_message* message) const;

  sd_bus* bus_ = nullptr;
  const std::string name_;  // of whom it calls; empty without a message bus
};

}  // namespace kelvane::bench
