#include "platform/wire/names.h"

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/wire/protocol.h"

namespace kelvane::wire {
namespace {

constexpr std::uint8_t letter = 1;  // the underscore too
constexpr std::uint8_t digit = 2;
constexpr std::uint8_t hyphen = 4;

constexpr std::array<std::uint8_t, 256> classes = [] {
  std::array<std::uint8_t, 256> table{};
  for (std::size_t c = 'a'; c <= 'z'; ++c) table[c] = letter;
  for (std::size_t c = 'A'; c <= 'Z'; ++c) table[c] = letter;
  for (std::size_t c = '0'; c <= '9'; ++c) table[c] = digit;
  table['_'] = letter;
  table['-'] = hyphen;
  return table;
}();

bool isOf(char c, unsigned allowed) { return (classes[static_cast<std::uint8_t>(c)] & allowed) != 0; }

/// The characters of a name's elements: the first one's, and the others'.
struct Elements {
  unsigned first;
  unsigned others;
};
constexpr Elements of_paths{letter | digit, letter | digit};
constexpr Elements of_identifiers{letter, letter | digit};
constexpr Elements of_well_known_names{letter | hyphen, letter | digit | hyphen};
constexpr Elements of_unique_names{letter | digit | hyphen, letter | digit | hyphen};

/// How many elements, divided by `separator`, `text` consists of; 0 when one is empty or has a character that
/// is not allowed.
std::size_t countElements(std::string_view text, char separator, const Elements& elements) {
  std::size_t count = 0;
  bool in_element = false;
  for (const char c : text) {
    if (in_element && c == separator) {
      in_element = false;
    } else if (isOf(c, in_element ? elements.others : elements.first)) {
      count += in_element ? 0 : 1;
      in_element = true;
    } else {
      return 0;
    }
  }
  return in_element ? count : 0;
}

}  // namespace

bool isObjectPath(std::string_view path) {
  if (path.empty() || path.front() != '/') return false;
  return path.size() == 1 || countElements(path.substr(1), '/', of_paths) > 0;
}

bool isInterfaceName(std::string_view name) {
  return name.size() <= longest_name && countElements(name, '.', of_identifiers) >= 2;
}

bool isMemberName(std::string_view name) {
  return name.size() <= longest_name && countElements(name, '.', of_identifiers) == 1;
}

bool isBusName(std::string_view name) {
  if (name.empty() || name.size() > longest_name) return false;
  if (name.front() == ':') return countElements(name.substr(1), '.', of_unique_names) >= 2;
  return countElements(name, '.', of_well_known_names) >= 2;
}

}  // namespace kelvane::wire
