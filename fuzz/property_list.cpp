// Property lists, XML and binary: descriptors and grants, which an administrator or a package writes.

#include "platform/foundation/property_list.h"

#include "fuzz/target.h"
#include "fuzz/values.h"

namespace kelvane::fuzz {
namespace {

constexpr PropertyListLimits tight{.bytes = 4096, .depth = 4, .objects = 32, .expanded_bytes = 256};

PropertyListResult readText(const std::string& text) {
  return propertyListWithData(
      std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));  // NOLINT: bytes as such
}

void requireThatItIsWrittenAndReadAgain(const Value& value) {
  const PropertyListXMLResult written = propertyListXML(value);
  require(written.error.has_value() == written.xml.empty(),
          "a property list is written, or the reason why not is given");
  if (written.error) return;
  const PropertyListResult again = readText(written.xml);
  require(!again.error, "what was written can be read");
  require(same(value, again.value, true), "what was read, written and read again is the same value");
  require(propertyListXML(again.value).xml == written.xml, "the same value is written as the same text");
}

void requireTightLimits(std::span<const std::uint8_t> input, const PropertyListResult& result) {
  const PropertyListResult bounded = propertyListWithData(input, tight);
  if (bounded.error) return;
  require(!result.error && same(bounded.value, result.value), "narrower limits change no value");
  require(input.size() <= tight.bytes, "the limit of bytes holds");
  require(depthOf(bounded.value) <= tight.depth, "the limit of depth holds");
  require(objectsIn(bounded.value) <= tight.objects, "the limit of objects holds");
}

}  // namespace

void examine(std::span<const std::uint8_t> input) {
  const PropertyListResult result = propertyListWithData(input);
  requireTightLimits(input, result);
  require(result.error.has_value() == result.value.isNothing(), "there is a value or an error, never both");
  if (result.error) {
    require(!result.error->empty(), "an error has a text");
    return;
  }
  const PropertyListLimits usual;
  require(depthOf(result.value) <= usual.depth, "the usual limit of depth holds");
  require(objectsIn(result.value) <= usual.objects, "the usual limit of objects holds");
  require(!result.value.description().empty(), "a value has a description");
  requireThatItIsWrittenAndReadAgain(result.value);
}

}  // namespace kelvane::fuzz
