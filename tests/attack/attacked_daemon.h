#pragma once

#include <sys/types.h>
#include <cstddef>
#include <string>
#include <vector>

#include "platform/foundation/file_descriptor.h"
#include "tests/system/daemon.h"
#include "tests/xpc/raw_peer.h"

namespace kelvane::tests {

/// Neither is the daemon's user. Both hold the grants that the packages give to users of the daemon.
inline constexpr uid_t attacker = 60001;
inline constexpr uid_t bystander = 60002;

/// A real daemon that logs like an installed one, and its resource use.
class AttackedDaemon {
 public:
  explicit AttackedDaemon(const std::vector<std::string>& environment = {});

  [[nodiscard]] std::string socket() const { return daemon_.socket(); }
  [[nodiscard]] Daemon& daemon() { return daemon_; }
  /// Open now.
  [[nodiscard]] std::size_t descriptors() const;
  /// Waits until this many are open, for at most ten seconds; returns how many are open.
  [[nodiscard]] std::size_t descriptorsWhenSettled(std::size_t expected) const;
  /// The largest resident size so far.
  [[nodiscard]] std::size_t peakMegabytes() const;
  /// Running now.
  [[nodiscard]] std::size_t threads() const;

 private:
  /// The number under that name in the status of the process.
  [[nodiscard]] std::size_t status(const std::string& name) const;

  Folder settings_;
  Daemon daemon_;
};

/// A socket that `user` connected to the daemon. Not a byte is sent yet.
[[nodiscard]] FileDescriptor connectedAs(uid_t user, const std::string& path);
/// The same, authenticated as that user, and allowed to pass descriptors.
[[nodiscard]] RawPeer peerOf(const AttackedDaemon& daemon, uid_t user);
/// "\0AUTH EXTERNAL ..." with that user.
[[nodiscard]] std::string authentication(uid_t user);

/// Raises this process's limit on file descriptors to its maximum, and returns it.
std::size_t raiseDescriptorLimit();

}  // namespace kelvane::tests
