#include "platform/xpc/wire.h"

#include <utility>

#include "platform/xpc/decoding.h"
#include "platform/xpc/wire_value.h"

namespace kelvane::xpc {

void Wire<Endpoint>::write(wire::Writer& out, const Endpoint& endpoint) {
  out.writeDescriptor(endpoint.descriptor());
}
void Wire<Endpoint>::read(wire::Reader& in, Endpoint& endpoint) {
  const Decoding* const decoding = Decoding::current();
  auto adopted = Endpoint::adopt(in.takeDescriptor(), decoding != nullptr ? decoding->payer() : nullptr);
  if (adopted) endpoint = std::move(*adopted);
}

void Wire<Dictionary>::write(wire::Writer& out, const Dictionary& dictionary) {
  writeDictionary(out, dictionary);
}
void Wire<Dictionary>::read(wire::Reader& in, Dictionary& dictionary) { readDictionary(in, dictionary); }

void Wire<std::optional<Dictionary>>::write(wire::Writer& out, const std::optional<Dictionary>& dictionary) {
  out.openArray("a{sv}");
  if (dictionary) writeDictionary(out, *dictionary);
  out.closeArray();
}
void Wire<std::optional<Dictionary>>::read(wire::Reader& in, std::optional<Dictionary>& dictionary) {
  in.enterArray("a{sv}");
  if (!in.atEnd()) readDictionary(in, dictionary.emplace());
  in.leave();  // refuses a second one
}

void Wire<Anything>::write(wire::Writer& out, const Anything& anything) { writeVariant(out, anything.value); }
void Wire<Anything>::read(wire::Reader& in, Anything& anything) { readValue(in, anything.value); }

void Wire<Value>::write(wire::Writer& out, const Value& value) {
  out.openArray("v");
  if (!value.isNothing()) writeVariant(out, value);
  out.closeArray();
}
void Wire<Value>::read(wire::Reader& in, Value& value) {
  in.enterArray("v");
  if (!in.atEnd()) readValue(in, value);
  in.leave();  // refuses a second one
}

}  // namespace kelvane::xpc
