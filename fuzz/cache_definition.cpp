// The definition of a cache holder (kelvane-caches.d(5)): what it lets go must stay within what is allowed.

#include <algorithm>

#include "caches/checks.h"
#include "caches/definition_reader.h"
#include "caches/quantities.h"
#include "caches/safety.h"
#include "fuzz/target.h"
#include "fuzz/toml_text.h"

namespace kelvane::fuzz {
namespace {

using caches::Definition;
using caches::DefinitionResult;

bool isOneLine(const std::string& text) {
  return std::none_of(text.begin(), text.end(), [](char c) { return c >= 0 && c < ' '; });
}

void requireProblems(const DefinitionResult& result) {
  require(!result.problems.empty(), "a file without a definition has a problem");
  require(result.problems.size() <= caches::most_problems, "no more problems than are promised");
  for (const caches::Problem& problem : result.problems) {
    require(!problem.reason.empty(), "a problem has a reason");
    require(isOneLine(problem.text()), "a problem is one line without control characters");
  }
}

void requireAges(const client::CacheRules& rules) {
  for (std::size_t i = 0; i < rules.ages.size(); ++i) {
    const auto& age = rules.ages[i];
    if (age) require(*age >= caches::least_age && *age <= caches::greatest_age, "ages keep their limits");
    if (i == 0 || !rules.ages[i - 1]) continue;
    require(age && *age <= *rules.ages[i - 1], "a higher urgency lets go at least what a lower one does");
  }
}

void requireThatItIsSafe(const Definition& it) {
  require(!caches::objectionToName(it.name) && !caches::objectionToSummary(it.summary),
          "name and summary are valid");
  require(!it.roots.empty(), "a definition has a root");
  for (const std::string& root : it.roots)
    require(!caches::objectionToRoot(root) && !refusalAsWritten(root, it),
            "every root is where caches may be");
  for (const std::string& pattern : it.rules.include)
    require(!objectionToInclude(pattern, it.kind), "include patterns are valid");
  for (const std::string& pattern : it.rules.exclude)
    require(!caches::objectionToPattern(pattern), "exclude patterns are valid");
  require(it.kind == caches::Kind::files || !it.rules.include.empty(), "units are named");
  require(it.enabled == (it.cache_class != caches::CacheClass::personal), "personal caches are off");
  requireAges(it.rules);
}

bool sameLocks(const Definition& a, const Definition& b) {
  return std::equal(a.in_use.begin(), a.in_use.end(), b.in_use.begin(), b.in_use.end(),
                    [](const auto& x, const auto& y) { return x.kind == y.kind && x.what == y.what; }) &&
         std::equal(a.rules.unit_locks.begin(), a.rules.unit_locks.end(), b.rules.unit_locks.begin(),
                    b.rules.unit_locks.end(),
                    [](const auto& x, const auto& y) { return x.kind == y.kind && x.path == y.path; });
}

bool sameRules(const client::CacheRules& a, const client::CacheRules& b) {
  return a.ages == b.ages && a.unit == b.unit && a.include == b.include && a.exclude == b.exclude &&
         a.markers == b.markers && a.open_files_stay == b.open_files_stay && a.keep_newest == b.keep_newest &&
         a.keep_bytes == b.keep_bytes && a.tagged_only == b.tagged_only;
}

void requireThatItIsWrittenAndReadAgain(const Definition& it) {
  const std::string text = tomlText(it);
  if (text.size() > caches::largest_definition) return;
  const DefinitionResult again = caches::parseDefinition(text, it.file);
  require(again.definition.has_value(), "what was written is a definition");
  const Definition& read = *again.definition;
  require(read.name == it.name && read.summary == it.summary && read.kind == it.kind &&
              read.owner == it.owner && read.cache_class == it.cache_class &&
              read.needs_network == it.needs_network && read.roots == it.roots && sameLocks(read, it) &&
              sameRules(read.rules, it.rules),
          "what was read, written and read again is the same definition");
}

}  // namespace

void examine(std::span<const std::uint8_t> input) {
  const DefinitionResult result = caches::parseDefinition(textOf(input), "file.toml");
  if (!result.definition) return requireProblems(result);
  require(result.problems.empty(), "a definition has no problem");
  requireThatItIsSafe(*result.definition);
  requireThatItIsWrittenAndReadAgain(*result.definition);
}

}  // namespace kelvane::fuzz
