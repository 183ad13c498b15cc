#include "caches/user_rules.h"

#include <algorithm>
#include <array>

#include "caches/checks.h"
#include "caches/file_in_home.h"
#include "caches/problems.h"
#include "caches/quantities.h"
#include "caches/toml_document.h"

namespace kelvane::caches {
namespace {

constexpr const char* rules_file = ".config/kelvane/caches.toml";

bool isUrgency(const std::string& key) { return key.size() == 1 && key.front() >= '1' && key.front() <= '4'; }

/// Applies a user's file to one definition. The tables of other holders are checked for their form.
class Narrowing {
 public:
  Narrowing(const Definition& definition, Problems& problems)
      : definition_(definition), problems_(problems) {}

  Definition apply(const TomlValue::Table& root) {
    for (const TomlEntry& entry : root) {
      if (entry.key == "disabled") {
        disable(entry);
      } else if (entry.value.table() == nullptr) {
        problems_.unknownKey(entry, "", "disabled, or the table of a holder such as [npm]");
      } else {
        for (const TomlEntry& rule : *entry.value.table()) takeRule(entry.key, rule);
      }
    }
    completeAges();
    return std::move(definition_);
  }

 private:
  void disable(const TomlEntry& entry) {
    for (const TomlValue& name : problems_.strings(entry)) {
      if (const Objection objection = objectionToName(*name.string())) {
        problems_.add(name.line, "invalid name " + inQuotes(*name.string()) + " in disabled: " + *objection);
      }
      if (*name.string() == definition_.name) definition_.enabled = false;
    }
  }

  void takeRule(const std::string& holder, const TomlEntry& rule) {
    const bool mine = holder == definition_.name;
    if (isUrgency(rule.key)) {
      takeAge(holder, rule, mine);
    } else if (rule.key == "exclude") {
      takeExclude(rule, mine);
    } else if (rule.key == "keep_bytes") {
      const std::optional<std::uint64_t> bytes = problems_.size(rule);
      if (bytes && mine) raiseFloor(rule, *bytes);
    } else {
      problems_.unknownKey(rule, " in [" + holder + "]",
                           "exclude, keep_bytes, 1, 2, 3 or 4: users narrow a holder and never widen it");
    }
  }

  void takeAge(const std::string& holder, const TomlEntry& rule, bool mine) {
    const auto index = static_cast<std::size_t>(rule.key.front() - '1');
    const std::string* text = rule.value.string();
    std::optional<std::chrono::seconds> age;
    if (text == nullptr || *text != "never") {
      age = checkedAge(problems_, rule, "[" + holder + "]");
      if (!age || !mine) return;
      const std::optional<std::chrono::seconds> allowed = definition_.rules.ages[index];
      if (!allowed || *age < *allowed) {
        problems_.add(rule.value.line, "the age " + inQuotes(*text) + " at urgency " + rule.key + " in [" +
                                           holder + "] lets more go than the definition: expected " +
                                           (allowed ? "at least " + ageText(*allowed) : "\"never\""));
        return;
      }
    }
    if (mine) definition_.rules.ages[index] = age;
  }

  void takeExclude(const TomlEntry& rule, bool mine) {
    for (const TomlValue& value : problems_.strings(rule)) {
      const std::string& pattern = *value.string();
      if (const Objection objection = objectionToPattern(pattern)) {
        problems_.add(value.line, "invalid exclude pattern " + inQuotes(pattern) + ": " + *objection);
      } else if (mine) {
        definition_.rules.exclude.push_back(pattern);
      }
    }
  }

  void raiseFloor(const TomlEntry& rule, std::uint64_t bytes) {
    if (bytes < definition_.rules.keep_bytes) {
      problems_.add(rule.value.line, "keep_bytes " + inQuotes(*rule.value.string()) +
                                         " keeps less than the definition: expected at least " +
                                         std::to_string(definition_.rules.keep_bytes));
    } else {
      definition_.rules.keep_bytes = bytes;
    }
  }

  /// What stays at one urgency stays at the lower ones.
  void completeAges() {
    auto& ages = definition_.rules.ages;
    for (std::size_t i = ages.size() - 1; i > 0; --i) {
      if (!ages[i]) ages[i - 1].reset();
      if (ages[i] && ages[i - 1]) ages[i - 1] = std::max(*ages[i - 1], *ages[i]);
    }
    if (!ages.back()) definition_.enabled = false;
  }

  Definition definition_;
  Problems& problems_;
};

}  // namespace

Narrowed narrow(const Definition& definition, int home_directory) {
  const FileInHome file = readFileInHome(home_directory, rules_file);
  const std::string name = std::string("~/") + rules_file;
  if (!file.problem.empty()) return {definition, name + ": " + file.problem};
  const TomlDocument document = parseToml(file.text);
  Problems problems(name);
  if (!document.error.empty()) problems.add(document.error_line, document.error);
  Definition narrowed = Narrowing(definition, problems).apply(document.root);
  if (problems.none()) return {std::move(narrowed), {}};
  return {definition, problems.take().front().text()};
}

}  // namespace kelvane::caches
