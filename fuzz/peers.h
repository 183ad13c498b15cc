#pragma once

// What libdbus and sd-bus make of the bytes of one message.

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::fuzz {

struct Opinion {
  std::string header;  // see body_text.h
  std::string body;
};

/// Nothing when libdbus refuses the message.
[[nodiscard]] std::optional<Opinion> opinionOfLibdbus(std::span<const std::uint8_t> message);

/// sd-bus behind a socket. What follows each message shows whether sd-bus took exactly its bytes; if not, the
/// connection is opened again.
class SdBus {
 public:
  SdBus();
  ~SdBus();
  SdBus(const SdBus&) = delete;
  SdBus& operator=(const SdBus&) = delete;

  /// Nothing when sd-bus drops the message, or the connection, or cannot read a value of it.
  [[nodiscard]] std::optional<Opinion> opinion(std::span<const std::uint8_t> message);

 private:
  struct CloseBus {
    void operator()(sd_bus* bus) const;
  };

  /// What was received since this was last emptied.
  struct Inbox {
    std::optional<Opinion> opinion;  // of the message in question
    bool is_in_step = false;         // the one behind it came as well
  };

  void connect();
  void send(std::span<const std::uint8_t> message) const;
  bool process();
  static int take(sd_bus_message* message, void* inbox, sd_bus_error* error);

  FileDescriptor socket_;
  std::unique_ptr<sd_bus, CloseBus> bus_;
  Inbox inbox_;
  const std::vector<std::uint8_t> marker_;  // the message that is sent behind each
};

}  // namespace kelvane::fuzz
