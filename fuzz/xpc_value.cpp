// Values as they travel between the daemon, its clients and its services: what any peer sends becomes a
// value, or is refused; every value that can be archived can be sent, or is refused, and arrives as the same.
//
// Input: a byte (bit 0: big-endian; bit 1: the rest is an archive to be sent, not a body), a byte that
// chooses the type of an argument, and the rest.

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "fuzz/target.h"
#include "fuzz/values.h"
#include "platform/foundation/archive.h"
#include "platform/foundation/utf8.h"
#include "platform/xpc/decoding.h"
#include "platform/xpc/wire.h"

namespace kelvane::fuzz {
namespace {

using wire::Header;
using wire::Message;

// A reader stops at most this far over what the payer gives.
constexpr std::uint64_t affordable = 64U << 10U;
constexpr std::size_t some_bytes = 8192;

const wire::Limits& limits() {
  static const wire::Limits limits = {1, affordable, 1, 1, 1, 1};
  return limits;
}

Header headerFor(const char* signature) {
  return {.serial = 1, .path = "/a", .interface = "i.j", .member = "M", .signature = signature};
}

template <class T>
bool read(const Message& message, T& value) {
  wire::Reader reader(message, {});
  xpc::Wire<T>::read(reader, value);
  return reader.finish();
}

/// Nothing when the value cannot be sent.
template <class T>
std::vector<std::byte> written(const T& value) {
  wire::Outgoing outgoing;
  wire::Writer writer(outgoing, headerFor(xpc::Wire<T>::signature));
  xpc::Wire<T>::write(writer, value);
  const wire::Writer::Fault fault = writer.finish();
  require(fault == wire::Writer::Fault::none || fault == wire::Writer::Fault::too_deep,
          "only depth keeps a value from being sent");
  if (fault != wire::Writer::Fault::none) return {};
  wire::setSerial(outgoing, 1);
  return std::move(outgoing.bytes);
}

Value valueOf(const xpc::Anything& anything) { return anything.value; }
Value valueOf(const Value& value) { return value; }
Value valueOf(const Dictionary& dictionary) { return dictionary; }
Value valueOf(const std::optional<Dictionary>& dictionary) {
  return dictionary ? Value(*dictionary) : Value();
}

/// Text that is sent loses what UTF-8 does not allow, and noncharacters.
bool hasRepairedText(const Value& value) {
  const std::string all = value.description();
  return all.find("\xef\xbf\xbd") != std::string::npos;
}

template <class T>
void requireThatItTravels(const T& value) {
  const std::vector<std::byte> bytes = written(value);
  if (bytes.empty())
    return require(valueOf(value).nestsDeeperThan(xpc::most_nested),
                   "what nests no deeper than allowed can be sent");
  const auto message = wire::parseMessage(bytes);
  require(message && wire::isBodyValid(*message, 0), "what is sent is valid");
  T arrived{};
  require(read(*message, arrived), "what is sent can be read");
  const Value after = valueOf(arrived);
  if (hasRepairedText(after)) return;
  require(same(valueOf(value), after), "a value arrives as the same");
  require(written(arrived) == bytes, "a value that arrived can be sent on as the same bytes");
}

/// One message of a peer that may cost so much and no more.
template <class T>
void examineBody(std::span<const std::uint8_t> body, bool big_endian) {
  Header header = headerFor(xpc::Wire<T>::signature);
  header.big_endian = big_endian;
  const auto all = std::as_bytes(body);
  const std::vector<std::byte> copy(all.begin(), all.end());
  const Message message{header, copy};
  const auto account = std::make_shared<wire::Account>(1000, limits());
  T value{};
  bool is_read = false;
  {
    const std::size_t before = allocatedBytes();
    xpc::Decoding decoding(account, copy.size());
    is_read = read(message, value);
    require(allocatedBytes() - before <= affordable + copy.size() + some_bytes, "what is built is paid for");
  }
  require(account->used(wire::Resource::received_bytes) == 0, "what was charged is released");
  if (!is_read) return;
  require(wire::isBodyValid(message, 0), "what is read is valid");
  requireThatItTravels(value);
}

void examineArchive(std::span<const std::uint8_t> archive) {
  const Value value = unarchivedValue(archive);
  requireThatItTravels(value);
  if (value.isNothing()) return;
  requireThatItTravels(xpc::Anything{value});
  if (const Dictionary* dictionary = value.dictionary()) {
    requireThatItTravels(*dictionary);
    requireThatItTravels(std::optional<Dictionary>(*dictionary));
  }
}

}  // namespace

void examine(std::span<const std::uint8_t> input) {
  Choices choices(input);
  const std::uint8_t flags = choices.byte();
  const std::uint8_t type = choices.byte();
  const auto rest = choices.rest();
  if ((flags & 2U) != 0) return examineArchive(rest);
  const bool big_endian = (flags & 1U) != 0;
  switch (type % 4) {
    case 0:
      return examineBody<Dictionary>(rest, big_endian);
    case 1:
      return examineBody<xpc::Anything>(rest, big_endian);
    case 2:
      return examineBody<Value>(rest, big_endian);
    default:
      return examineBody<std::optional<Dictionary>>(rest, big_endian);
  }
}

}  // namespace kelvane::fuzz
