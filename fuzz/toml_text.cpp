#include "fuzz/toml_text.h"

#include <string_view>

#include "caches/quantities.h"
#include "caches/words.h"

namespace kelvane::fuzz {
namespace {

using caches::Definition;
using caches::InUse;
using client::CacheLock;

std::string quoted(std::string_view text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result + "\"";
}

template <class Enumeration, std::size_t count>
std::string wordOf(const std::array<caches::Word<Enumeration>, count>& words, Enumeration value) {
  for (const auto& word : words) {
    if (word.value == value) return word.text;
  }
  return {};
}

std::string line(const char* key, const std::string& value) {
  return std::string(key) + " = " + value + "\n";
}

template <class List, class Text>
std::string listOf(const List& list, Text text) {
  std::string result = "[";
  for (const auto& each : list) result += text(each) + ", ";
  return result + "]";
}

std::string texts(const char* key, const std::vector<std::string>& list) {
  return list.empty() ? "" : line(key, listOf(list, quoted));
}

std::string inUse(const std::vector<InUse>& list) {
  return line("in_use", listOf(list, [](const InUse& sign) {
                return "{ " + wordOf(caches::signs, sign.kind) + " = " + quoted(sign.what) + " }";
              }));
}

std::string unitLocks(const std::vector<CacheLock>& list) {
  return line("unit_locks", listOf(list, [](const CacheLock& lock) {
                return "{ " + wordOf(caches::locks, lock.kind) + " = " + quoted(lock.path) + " }";
              }));
}

std::string urgencies(const client::CacheRules& rules, caches::CacheClass cache_class) {
  std::string text = "[urgency]\n";
  for (std::size_t i = 0; i < rules.ages.size(); ++i) {
    // What an expirable holder has at urgency 4 comes from urgency 3; it must not set one itself.
    const bool implied = cache_class == caches::CacheClass::expirable && i == 3;
    if (rules.ages[i] && !implied)
      text += std::to_string(i + 1) + " = " + quoted(caches::ageText(*rules.ages[i])) + "\n";
  }
  return text;
}

}  // namespace

std::string tomlText(const Definition& it) {
  const client::CacheRules& rules = it.rules;
  std::string text = "[holder]\n";
  text += line("name", quoted(it.name)) + line("summary", quoted(it.summary));
  text += line("kind", quoted(wordOf(caches::kinds, it.kind))) +
          line("for", quoted(wordOf(caches::owners, it.owner)));
  text += line("class", quoted(wordOf(caches::classes, it.cache_class)));
  if (it.needs_network) text += line("needs", quoted("network"));
  text += texts("roots", it.roots) + texts("include", rules.include) + texts("exclude", rules.exclude) +
          texts("markers", rules.markers);
  if (!it.in_use.empty()) text += inUse(it.in_use);
  if (!rules.unit_locks.empty()) text += unitLocks(rules.unit_locks);
  text += line("open_files_stay", rules.open_files_stay ? "true" : "false");
  text += line("tagged_only", rules.tagged_only ? "true" : "false");
  text += line("keep_newest", std::to_string(rules.keep_newest));
  text += line("keep_bytes", quoted(std::to_string(rules.keep_bytes)));
  return text + urgencies(rules, it.cache_class);
}

}  // namespace kelvane::fuzz
