// Bodies of messages against signatures: those of the two protocols and arbitrary ones, in both byte orders.
// Whatever the reader accepts, the writer writes and the reader reads back to the same.
//
// Input: flags (bit 0: big-endian; bits 1 and 2: number of descriptors), then one byte that chooses a
// signature. 255: the signature is in the input, behind a byte with its length. The rest is the body.

#include <fcntl.h>
#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "fuzz/body_text.h"
#include "fuzz/target.h"
#include "platform/foundation/file_descriptor.h"
#include "platform/wire/signature.h"
#include "tests/wire/random_body.h"

namespace kelvane::fuzz {
namespace {

using wire::Header;
using wire::Message;
using wire::Outgoing;
using wire::Reader;
using wire::Writer;

constexpr std::array<std::string_view, 12> protocol_signatures = {
    "a{sv}", "av", "aa{sv}", "sha{sv}", "avs", "v", "ia{sv}", "s", "as", "a{ss}", "ay", "(x)"};
constexpr std::uint8_t own_signature = 255;

std::vector<FileDescriptor> someDescriptors(std::size_t count) {
  std::vector<FileDescriptor> all;
  for (; count > 0; --count) all.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  return all;
}

/// Reads everything with the calls for its types, descriptors taken.
wire::Fault readAll(const Message& message, std::size_t descriptors, std::string* text) {
  auto passed = someDescriptors(descriptors);
  Reader reader(message, passed);
  const std::string all = bodyText(reader);
  if (text != nullptr) *text = all;
  reader.finish();
  return reader.fault();
}

/// A reader that is asked for another type than comes next faults, and reads nothing from then on.
void requireThatMismatchesAreSeen(const Message& message) {
  Reader reader(message, {});
  if (reader.atEnd()) return;
  reader.nextType() == 't' ? static_cast<void>(reader.readByte()) : static_cast<void>(reader.readUint64());
  require(reader.fault() != wire::Fault::none, "another type than the next one is a fault");
  require(reader.atEnd() && reader.nextCompleteType().empty(), "nothing is left after a fault");
  require(reader.readString().empty() && reader.readUint32() == 0,
          "after a fault everything reads as nothing");
  require(!reader.finish(), "a fault is not forgotten");
}

Header headerFor(std::string_view signature) {
  return {.serial = 1, .path = "/a", .interface = "i.j", .member = "M", .signature = signature};
}

/// The text of the message that the writer made of what `message` holds.
std::string writtenAgain(const Message& message, Outgoing& outgoing) {
  Reader reader(message, {});
  Writer writer(outgoing, headerFor(message.header.signature));
  wire::transcribe(reader, writer);
  require(writer.finish() == Writer::Fault::none, "what can be read can be written");
  wire::setSerial(outgoing, 1);
  const auto written = wire::parseMessage(outgoing.bytes);
  require(written && wire::isBodyValid(*written, 0), "what was written can be read");
  return bodyText(*written);
}

/// Text that the writer repairs is not the same afterwards.
bool isRepaired(const std::string& before, const std::string& after) {
  constexpr std::string_view replacement = "\xef\xbf\xbd";
  return before != after && after.find(replacement) != std::string::npos;
}

void requireThatItIsWrittenAndReadAgain(const Message& message, const std::string& text) {
  Outgoing first;
  const std::string again = writtenAgain(message, first);
  if (!isRepaired(text, again)) {
    require(again == text, "what was read, written and read again is the same");
    const auto written = wire::parseMessage(first.bytes);
    const bool same_bytes =
        std::equal(written->body.begin(), written->body.end(), message.body.begin(), message.body.end());
    require(same_bytes || message.header.big_endian, "a value has one encoding");
  }
  Outgoing second;
  require(writtenAgain(*wire::parseMessage(first.bytes), second) == again && second.bytes == first.bytes,
          "what was repaired once needs no repair");
}

std::string_view takeSignature(Choices& choices, std::string& room) {
  const std::uint8_t choice = choices.byte();
  if (choice != own_signature) return protocol_signatures[choice % protocol_signatures.size()];
  room = textOf(choices.bytes(choices.byte()));
  return room;
}

/// A signature is complete types one after the other.
void requireTypes(std::string_view signature) {
  require(signature.size() <= wire::longest_signature, "signatures have a greatest length");
  while (!signature.empty()) {
    const std::size_t length = wire::completeTypeLength(signature);
    require(length > 0 && length <= signature.size() && wire::isCompleteType(signature.substr(0, length)),
            "a signature is complete types one after the other");
    signature.remove_prefix(length);
  }
}

}  // namespace

void examine(std::span<const std::uint8_t> input) {
  Choices choices(input);
  const std::uint8_t flags = choices.byte();
  std::string signature_room;
  const std::string_view signature = takeSignature(choices, signature_room);
  if (!wire::isSignature(signature))
    return require(!wire::isCompleteType(signature), "a type is a signature");
  requireTypes(signature);
  // A copy of exactly this size, so that AddressSanitizer sees a byte read beyond it.
  const auto left = std::as_bytes(choices.rest());
  const std::vector<std::byte> body(left.begin(), left.end());
  Header header = headerFor(signature);
  header.big_endian = (flags & 1U) != 0;
  const Message message{header, body};
  const std::size_t descriptors = flags >> 1U & 3U;

  std::string text;
  const wire::Fault fault = readAll(message, descriptors, &text);
  const bool valid = wire::isBodyValid(message, descriptors);
  require(valid == (fault == wire::Fault::none), "a body is valid when it can be read, and only then");
  requireThatMismatchesAreSeen(message);
  // The writer renumbers descriptors, so values that name one are not compared.
  if (valid && descriptors == 0) requireThatItIsWrittenAndReadAgain(message, text);
}

}  // namespace kelvane::fuzz
