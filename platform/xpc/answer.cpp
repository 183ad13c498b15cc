#include "platform/xpc/answer.h"

#include <cstddef>
#include <string>
#include <vector>

#include "platform/wire/header.h"
#include "platform/wire/names.h"
#include "platform/wire/protocol.h"
#include "platform/wire/transport.h"
#include "platform/xpc/error.h"

namespace kelvane::xpc {

namespace {

/// Peers that use this library read no more.
const std::size_t longest_message = wire::TransportOptions().longest_message;

}  // namespace

wire::Outgoing& scratchMessage() {
  thread_local wire::Outgoing message;
  return message;
}

ScratchUse::~ScratchUse() {
  auto& bytes = scratchMessage().bytes;
  if (bytes.capacity() > most_kept) std::vector<std::byte>().swap(bytes);
}

void makeReply(wire::Outgoing& answer, std::uint32_t serial, std::string_view signature,
               FunctionRef<void(wire::Writer&)> write) {
  wire::Header header;
  header.type = wire::MessageType::method_return;
  header.flags = wire::flag_no_reply_expected;
  header.reply_serial = serial;
  header.signature = signature;
  wire::Writer out(answer, header);
  write(out);
  const wire::Writer::Fault fault = out.finish();
  const std::size_t size = answer.bytes.size();
  if (size > longest_message) {
    makeError(answer, serial, error_limits_exceeded,
              "the answer takes " + std::to_string(size) + " bytes: expected at most " +
                  std::to_string(longest_message));
  }
  if (fault == wire::Writer::Fault::none) return;
  makeError(answer, serial, error_limits_exceeded,
            std::string("the answer cannot be sent: ").append(textOf(fault)));
}

void makeError(wire::Outgoing& answer, std::uint32_t serial, std::string_view name,
               std::string_view message) {
  wire::Header header;
  header.type = wire::MessageType::error;
  header.flags = wire::flag_no_reply_expected;
  header.reply_serial = serial;
  header.error_name = wire::isErrorName(name) ? name : error_failed;
  header.signature = "s";
  wire::Writer out(answer, header);
  out.writeString(message);
  static_cast<void>(out.finish());  // a text and two short fields: it always travels
}

std::string_view textOf(wire::Writer::Fault fault) {
  switch (fault) {
    case wire::Writer::Fault::none:
      return "nothing is wrong";
    case wire::Writer::Fault::too_long:
      return "it is longer than D-Bus allows";
    case wire::Writer::Fault::too_deep:
      return "it is nested deeper than D-Bus allows";
    case wire::Writer::Fault::invalid:
      return "D-Bus has no form for it";
  }
  return "";
}

}  // namespace kelvane::xpc
