#include "caches/problems.h"

#include <algorithm>

#include "caches/quantities.h"

namespace kelvane::caches {
std::string Problem::text() const {
  return file + ":" + (line != 0 ? std::to_string(line) + ": " : " ") + reason;
}

void Problems::add(std::size_t line, std::string reason) {
  // Far more than is reported, so that the first lines of the file are among them.
  if (problems_.size() < 8 * most_problems) problems_.push_back({file_, line, std::move(reason)});
}

std::vector<Problem> Problems::take() {
  std::stable_sort(problems_.begin(), problems_.end(),
                   [](const Problem& one, const Problem& other) { return one.line < other.line; });
  if (problems_.size() > most_problems) problems_.resize(most_problems);
  return std::move(problems_);
}

std::optional<std::string> Problems::string(const TomlEntry& entry) {
  if (entry.value.string() == nullptr) {
    wrongType(entry.key, entry.value, "a string");
    return std::nullopt;
  }
  return isShort(entry.key, entry.value) ? std::optional(*entry.value.string()) : std::nullopt;
}

std::optional<bool> Problems::boolean(const TomlEntry& entry) {
  if (const bool* truth = entry.value.boolean()) return *truth;
  wrongType(entry.key, entry.value, "true or false");
  return std::nullopt;
}

std::optional<std::uint64_t> Problems::size(const TomlEntry& entry) {
  const std::optional<std::string> text = string(entry);
  if (!text) return std::nullopt;
  const std::optional<std::uint64_t> bytes = parseSize(*text);
  if (!bytes) {
    add(entry.value.line,
        "invalid " + entry.key + " " + inQuotes(*text) + ": expected a size such as 64M or 4096");
  }
  return bytes;
}

const TomlValue::Array* Problems::array(const TomlEntry& entry) {
  const TomlValue::Array* array = entry.value.array();
  if (array == nullptr) {
    wrongType(entry.key, entry.value, "an array");
    return nullptr;
  }
  if (array->size() <= most_list_entries) return array;
  add(entry.value.line, entry.key + " has " + std::to_string(array->size()) + " entries: expected at most " +
                            std::to_string(most_list_entries));
  return nullptr;
}

std::vector<TomlValue> Problems::strings(const TomlEntry& entry) {
  std::vector<TomlValue> result;
  const TomlValue::Array* all = array(entry);
  if (all == nullptr) return result;
  for (const TomlValue& value : *all) {
    if (value.string() == nullptr) {
      wrongType("an entry of " + entry.key, value, "a string");
    } else if (isShort("an entry of " + entry.key, value)) {
      result.push_back(value);
    }
  }
  return result;
}

void Problems::unknownKey(const TomlEntry& entry, const std::string& where, const std::string& expected) {
  add(entry.value.line, "unknown key " + inQuotes(entry.key) + where + ": expected " + expected);
}

void Problems::wrongType(const std::string& key, const TomlValue& value, const char* expected) {
  add(value.line, key + " is " + value.type() + ": expected " + expected);
}

bool Problems::isShort(const std::string& key, const TomlValue& value) {
  const std::size_t size = value.string()->size();
  if (size > longest_string) {
    add(value.line,
        key + " has " + std::to_string(size) + " bytes: expected at most " + std::to_string(longest_string));
  }
  return size <= longest_string;
}

}  // namespace kelvane::caches
