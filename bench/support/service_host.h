#pragma once

#include <sys/types.h>
#include <cstdint>

namespace kelvane::bench {

inline constexpr std::uint64_t purgeable_bytes = 1000;

/// How a service speaks on the connections that come down its endpoint.
enum class Speech : char { dbus = 'd', raw = 'r' };

/// A process that plays any number of services, single-threaded, with nothing of ours in it: the same for
/// everything that is compared. Asked to purge, a service gives one byte less than it was asked for, so that
/// nobody asks it twice in a pass. Asked what it could purge, it says `purgeable_bytes`.
class ServiceHost {
 public:
  /// Forks; call it before the program has threads.
  ServiceHost();
  ~ServiceHost();
  ServiceHost(const ServiceHost&) = delete;
  ServiceHost& operator=(const ServiceHost&) = delete;

  /// A new service. Returns the descriptor of its endpoint, which the caller owns.
  int addService(Speech speech);
  [[nodiscard]] pid_t ID() const { return process_; }

 private:
  pid_t process_ = -1;
  int control_ = -1;
};

/// Sends one byte and a descriptor.
bool sendDescriptor(int socket, char byte, int descriptor);
/// Receives what `sendDescriptor` sent: the descriptor, or -1 when there is none yet or no more.
int receiveDescriptor(int socket, char& byte);

/// What a raw request and its answer weigh: as much as the D-Bus messages that they stand for.
inline constexpr int raw_request_bytes = 286;
inline constexpr int raw_reply_bytes = 80;

}  // namespace kelvane::bench
