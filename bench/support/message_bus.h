#pragma once

#include <sys/types.h>
#include <string>

#include "bench/support/temporary_folder.h"

namespace kelvane::bench {

/// A dbus-daemon of this program's own.
class MessageBus {
 public:
  /// Returns when it accepts connections. Ends this program, with the reason, when it does not.
  MessageBus();
  ~MessageBus();
  MessageBus(const MessageBus&) = delete;
  MessageBus& operator=(const MessageBus&) = delete;

  [[nodiscard]] std::string socket() const { return folder_.path() + "/bus"; }

 private:
  const TemporaryFolder folder_;
  pid_t process_ = -1;
};

}  // namespace kelvane::bench
