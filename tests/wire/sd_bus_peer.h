#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <memory>
#include <vector>

#include "platform/foundation/file_descriptor.h"
#include "platform/wire/header.h"
#include "platform/wire/writer.h"

namespace kelvane::wire {

struct UnrefMessage {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using BusMessage = std::unique_ptr<sd_bus_message, UnrefMessage>;

/// sd-bus at the other end of a socket, to check the codec against. The handshake is done when this is made;
/// failures throw.
class SdBusPeer {
 public:
  SdBusPeer();

  [[nodiscard]] BusMessage newCall();
  /// The bytes that sd-bus sends for the message.
  [[nodiscard]] std::vector<std::byte> sent(sd_bus_message* message);
  /// The message as sd-bus parses it; null if it drops the message.
  [[nodiscard]] BusMessage received(const Outgoing& message);

 private:
  [[nodiscard]] std::vector<std::byte> readAll() const;
  void write(Bytes bytes, const std::vector<int>& descriptors) const;

  struct CloseBus {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  };
  std::unique_ptr<sd_bus, CloseBus> bus_;
  FileDescriptor socket_;
};

}  // namespace kelvane::wire
