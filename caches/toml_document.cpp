#include "caches/toml_document.h"

#include <algorithm>
#include <array>

#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

namespace kelvane::caches {
namespace {

TomlValue valueOf(const toml::node& node);

TomlValue::Table tableOf(const toml::table& table) {
  TomlValue::Table result;
  for (const auto& [key, node] : table) {
    TomlEntry& entry = result.emplace_back(TomlEntry{std::string(key.str()), valueOf(node)});
    if (key.source().begin.line != 0) entry.value.line = key.source().begin.line;
  }
  return result;
}

TomlValue::Array arrayOf(const toml::array& array) {
  TomlValue::Array result;
  for (const toml::node& node : array) result.push_back(valueOf(node));
  return result;
}

TomlValue valueOf(const toml::node& node) {
  TomlValue result{node.source().begin.line, TomlValue::Other{"a date or time"}};
  if (const auto* text = node.as_string()) {
    result.value = text->get();
  } else if (const auto* number = node.as_integer()) {
    result.value = number->get();
  } else if (const auto* truth = node.as_boolean()) {
    result.value = truth->get();
  } else if (const auto* array = node.as_array()) {
    result.value = arrayOf(*array);
  } else if (const auto* table = node.as_table()) {
    result.value = tableOf(*table);
  } else if (node.is_floating_point()) {
    result.value = TomlValue::Other{"a float"};
  }
  return result;
}

std::size_t lineOf(std::string_view text, std::size_t position) {
  return 1 + static_cast<std::size_t>(std::count(text.begin(), text.begin() + position, '\n'));
}

}  // namespace

const char* TomlValue::type() const {
  constexpr std::array names{"", "a boolean", "an integer", "a string", "an array", "a table"};
  const auto* other = std::get_if<Other>(&value);
  return other != nullptr ? other->type : names[value.index()];
}

TomlDocument parseToml(std::string_view text) {
  constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
  if (text.substr(0, byte_order_mark.size()) == byte_order_mark) {
    return {{}, "byte order mark at the beginning: expected UTF-8 without one", 1};
  }
  if (const std::size_t nul = text.find('\0'); nul != std::string_view::npos) {
    return {{}, "NUL byte: expected text", lineOf(text, nul)};
  }
  const toml::parse_result parsed = toml::parse(text);
  if (parsed) return {tableOf(parsed.table()), {}, 0};
  return {{}, std::string(parsed.error().description()), parsed.error().source().begin.line};
}

}  // namespace kelvane::caches
