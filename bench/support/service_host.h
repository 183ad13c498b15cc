#pragma once

#include <sys/types.h>
#include <cstdint>
#include <string>

namespace kelvane::bench {

inline constexpr std::uint64_t purgeable_bytes = 1000;

/// How a service speaks on the connections that come down its endpoint.
enum class Speech : char { dbus = 'd', raw = 'r' };

/// The name under which the process serves on a message bus.
inline constexpr const char* echo_name = "com.example.echo";

/// A process that plays any number of services, single-threaded, with nothing of ours in it: the same for
/// everything that is compared. Asked to purge, a service gives one byte less than it was asked for, so that
/// nobody asks it twice in a pass. Asked what it could purge, it says `purgeable_bytes`.
///
/// It also stands in for the daemon, with answers of the same size: to a check-in, to clientGetState, and to
/// clientPurgeableSpace, where the volume's name is the number of services to answer for.
class ServiceHost {
 public:
  /// Forks; call it before the program has threads.
  ServiceHost();
  ~ServiceHost();
  ServiceHost(const ServiceHost&) = delete;
  ServiceHost& operator=(const ServiceHost&) = delete;

  /// A new service. Returns the descriptor of its endpoint, which the caller owns.
  int addService(Speech speech);
  /// From now on it accepts connections at the path and stands in for the daemon there.
  void standInAt(const std::string& path);
  /// The same as a service on a message bus, called `echo_name`.
  void standInOnBus(const std::string& bus_path);
  [[nodiscard]] pid_t ID() const { return process_; }

 private:
  void give(char kind, int descriptor) const;

  pid_t process_ = -1;
  int control_ = -1;
};

/// A socket that is bound to the path and listens, or is connected to it. Ends the program when it cannot.
int listeningAt(const std::string& path);
int connectedTo(const std::string& path);

/// Sends one byte and a descriptor.
bool sendDescriptor(int socket, char byte, int descriptor);
/// Receives what `sendDescriptor` sent: the descriptor, or -1 when there is none yet (errno is EAGAIN) or no
/// more.
int receiveDescriptor(int socket, char& byte);

/// What a raw request and its answer weigh: as much as the D-Bus messages that they stand for.
inline constexpr int raw_request_bytes = 286;
inline constexpr int raw_reply_bytes = 80;

}  // namespace kelvane::bench
