#pragma once

// What libdbus and sd-bus make of the bytes of one message.

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "platform/foundation/file_descriptor.h"

struct sd_bus;
struct sd_bus_message;

namespace kelvane::fuzz {

struct Opinion {
  std::string header;  // see body_text.h
  std::string body;
};

/// Nothing when libdbus refuses the message.
[[nodiscard]] std::optional<Opinion> opinionOfLibdbus(std::span<const std::uint8_t> message);

/// sd-bus behind a socket. Its connection is made anew once it refused something.
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

  void connect();
  bool process();

  FileDescriptor socket_;
  std::unique_ptr<sd_bus, CloseBus> bus_;
  std::optional<Opinion> opinion_;  // of the message that is being processed
};

}  // namespace kelvane::fuzz
