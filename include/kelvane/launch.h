#pragma once

// The daemon's launch socket: what a service manager, or the administrator, starts in it. The socket lets in
// root and the daemon's user only.

#include <chrono>
#include <cstdint>
#include <string>

#include "kelvane/export.h"
#include "kelvane/result.h"
#include "kelvane/value.h"

namespace kelvane::client {

/// Every member may be called on any thread, and blocks until the daemon has answered: an activity or an
/// event is answered when it has been dealt with, which may take minutes. After `patience` without an answer
/// it fails with Failure::connectionLost; what was begun goes on in the daemon.
class KELVANE_EXPORT LaunchSocket {
 public:
  explicit LaunchSocket(std::string path, std::chrono::seconds patience = std::chrono::hours(24))
      : path_(std::move(path)), patience_(patience) {}

  /// How many transactions are open: the daemon is busy while there are any.
  [[nodiscard]] Result<std::uint64_t> transactions() const;
  /// Failure::badRequest when nobody registered an activity, or handles a stream, of that name.
  [[nodiscard]] Result<Done> runActivity(const std::string& name) const;
  [[nodiscard]] Result<Done> postEvent(const std::string& stream, const Dictionary& event) const;

 private:
  template <class T, class Protocol, class Send>
  [[nodiscard]] Result<T> call(const Send& send) const;

  const std::string path_;
  const std::chrono::seconds patience_;
};

}  // namespace kelvane::client
