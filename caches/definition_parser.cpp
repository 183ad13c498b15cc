#include "caches/definition_parser.h"

#include <algorithm>
#include <array>
#include <functional>

#include "caches/checks.h"
#include "caches/quantities.h"
#include "caches/safety.h"
#include "caches/words.h"

namespace kelvane::caches {
namespace {

class DefinitionParser {
 public:
  explicit DefinitionParser(Problems& problems) : problems_(problems) {}

  Definition parse(const TomlValue::Table& root) {
    for (const TomlEntry& entry : root) {
      if (entry.key == "holder") {
        holder_ = table(entry);
      } else if (entry.key == "urgency") {
        urgency_ = table(entry);
      } else {
        problems_.unknownKey(entry, "", "the tables [holder] and [urgency]");
      }
    }
    if (holder_ == nullptr) problems_.add(0, "missing table [holder]");
    if (urgency_ == nullptr) problems_.add(0, "missing table [urgency]");
    if (holder_ != nullptr) readHolder();
    if (urgency_ != nullptr) readUrgency();
    checkWhole();
    return std::move(definition_);
  }

 private:
  using Reader = void (DefinitionParser::*)(const TomlEntry&);
  struct Key {
    const char* name;
    Reader read;
    bool required = false;
  };
  static const std::vector<Key>& keys();

  const TomlValue::Table* table(const TomlEntry& entry) {
    if (entry.value.table() == nullptr) {
      problems_.add(entry.value.line,
                    entry.key + " is " + entry.value.type() + ": expected the table [" + entry.key + "]");
    } else if (entry.key == "holder") {
      holder_line_ = entry.value.line;
    } else {
      urgency_line_ = entry.value.line;
    }
    return entry.value.table();
  }

  void readHolder() {
    // Keys that decide about others come first.
    for (const Key& key : keys()) {
      const auto entry = std::find_if(holder_->begin(), holder_->end(),
                                      [&](const TomlEntry& each) { return each.key == key.name; });
      if (entry != holder_->end()) {
        (this->*key.read)(*entry);
      } else if (key.required) {
        problems_.add(holder_line_, std::string("missing key ") + key.name + " in [holder]");
      }
    }
    for (const TomlEntry& entry : *holder_) {
      const bool known =
          std::any_of(keys().begin(), keys().end(), [&](const Key& key) { return entry.key == key.name; });
      if (!known) problems_.unknownKey(entry, " in [holder]", "one of " + namesOfKeys());
    }
  }

  static std::string namesOfKeys() {
    std::string names;
    for (const Key& key : keys()) names += (names.empty() ? "" : ", ") + std::string(key.name);
    return names;
  }

  void object(const TomlValue& value, const std::string& what, const std::string& text,
              const std::string& objection) {
    problems_.add(value.line, "invalid " + what + " " + inQuotes(text) + ": " + objection);
  }

  template <class Enumeration, std::size_t count>
  void readWord(const TomlEntry& entry, const std::array<Word<Enumeration>, count>& words,
                Enumeration& into) {
    const std::optional<std::string> text = problems_.string(entry);
    if (!text) return;
    if (const auto* word = wordFor(words, *text)) {
      into = word->value;
    } else {
      object(entry.value, entry.key, *text, "expected " + listOf(words));
    }
  }

  void readText(const TomlEntry& entry, Objection (*objection_to)(const std::string&), std::string& into) {
    const std::optional<std::string> text = problems_.string(entry);
    if (!text) return;
    if (Objection objection = objection_to(*text)) return object(entry.value, entry.key, *text, *objection);
    into = *text;
  }

  using Check = std::function<Objection(const std::string&)>;
  /// Returns the accepted values, which have their lines.
  TomlValue::Array readList(const TomlEntry& entry, const char* what, const Check& objection_to,
                            std::vector<std::string>& into) {
    TomlValue::Array taken;
    for (TomlValue& value : problems_.strings(entry)) {
      if (Objection objection = objection_to(*value.string())) {
        object(value, what, *value.string(), *objection);
      } else {
        into.push_back(*value.string());
        taken.push_back(std::move(value));
      }
    }
    return taken;
  }

  void readName(const TomlEntry& entry) { readText(entry, objectionToName, definition_.name); }
  void readSummary(const TomlEntry& entry) { readText(entry, objectionToSummary, definition_.summary); }
  void readOwner(const TomlEntry& entry) { readWord(entry, owners, definition_.owner); }
  void readClass(const TomlEntry& entry) { readWord(entry, classes, definition_.cache_class); }
  void readKind(const TomlEntry& entry) {
    readWord(entry, kinds, definition_.kind);
    if (definition_.kind == Kind::units) definition_.rules.unit = client::CacheUnit::directory;
  }
  void readNeeds(const TomlEntry& entry) {
    const std::optional<std::string> text = problems_.string(entry);
    definition_.needs_network = text == "network";
    if (text && text != "network") object(entry.value, "needs", *text, "expected network");
  }
  void readRoots(const TomlEntry& entry) {
    for (TomlValue& value : readList(entry, "root", objectionToRoot, definition_.roots))
      roots_.push_back(std::move(value));
    if (entry.value.array() != nullptr && entry.value.array()->empty()) {
      problems_.add(entry.value.line, "roots is empty: expected at least one directory");
    }
  }
  void readInclude(const TomlEntry& entry) {
    has_include_ = true;
    readList(
        entry, "include pattern",
        [this](const std::string& text) { return objectionToInclude(text, definition_.kind); },
        definition_.rules.include);
    if (entry.value.array() != nullptr && entry.value.array()->empty()) {
      problems_.add(entry.value.line, "include is empty: name what may go, or leave the key out");
    }
  }
  void readExclude(const TomlEntry& entry) {
    readList(entry, "exclude pattern", objectionToPattern, definition_.rules.exclude);
  }
  void readMarkers(const TomlEntry& entry) {
    readList(entry, "marker", objectionToFileName, definition_.rules.markers);
    onlyForUnits(entry);
  }
  void readOpenFiles(const TomlEntry& entry) {
    definition_.rules.open_files_stay = problems_.boolean(entry).value_or(true);
  }
  void readTagged(const TomlEntry& entry) {
    definition_.rules.tagged_only = problems_.boolean(entry).value_or(true);
  }
  void readBytes(const TomlEntry& entry) { definition_.rules.keep_bytes = problems_.size(entry).value_or(0); }
  void readNewest(const TomlEntry& entry) {
    constexpr std::int64_t most = 4096;  // the rules count exactly up to this
    const std::int64_t* number = entry.value.integer();
    if (number == nullptr || *number < 0 || *number > most) {
      problems_.add(entry.value.line, "invalid keep_newest: expected an integer from 0 to 4096");
    } else {
      definition_.rules.keep_newest = static_cast<std::uint64_t>(*number);
    }
  }

  void onlyForUnits(const TomlEntry& entry) {
    if (definition_.kind != Kind::units)
      problems_.add(entry.value.line, entry.key + " is for holders of kind units only");
  }

  void readInUse(const TomlEntry& entry) {
    eachSign(entry, [this](const TomlEntry& sign, const std::string& what) {
      const auto* word = wordFor(signs, sign.key);
      if (word == nullptr) return problems_.unknownKey(sign, " in in_use", listOf(signs));
      const Objection objection = word->value == InUse::Kind::process
                                      ? objectionToProcess(what)
                                      : objectionToLockPath(what, definition_.owner);
      if (objection) return object(sign.value, sign.key, what, *objection);
      definition_.in_use.push_back({word->value, what});
    });
  }
  void readUnitLocks(const TomlEntry& entry) {
    eachSign(entry, [this](const TomlEntry& sign, const std::string& what) {
      const auto* word = wordFor(locks, sign.key);
      if (word == nullptr) return problems_.unknownKey(sign, " in unit_locks", listOf(locks));
      if (Objection objection = objectionToPattern(what))
        return object(sign.value, sign.key, what, *objection);
      definition_.rules.unit_locks.push_back({word->value, what});
    });
    onlyForUnits(entry);
  }
  /// The entries of an array of tables with one entry each.
  void eachSign(const TomlEntry& entry,
                const std::function<void(const TomlEntry&, const std::string&)>& take) {
    const TomlValue::Array* all = problems_.array(entry);
    if (all == nullptr) return;
    for (const TomlValue& value : *all) {
      if (value.table() == nullptr || value.table()->size() != 1) {
        problems_.add(value.line,
                      "an entry of " + entry.key +
                          " is not a table of one key: expected one such as { flock = \"PATH\" }");
        continue;
      }
      const TomlEntry& sign = value.table()->front();
      if (const std::optional<std::string> what = problems_.string(sign)) take(sign, *what);
    }
  }

  void readUrgency() {
    for (const TomlEntry& entry : *urgency_) {
      if (entry.key.size() != 1 || entry.key.front() < '1' || entry.key.front() > '4') {
        problems_.unknownKey(entry, " in [urgency]", "1, 2, 3 or 4");
        continue;
      }
      const std::size_t index = static_cast<std::size_t>(entry.key.front() - '1');
      lines_[index] = entry.value.line;
      definition_.rules.ages[index] = checkedAge(problems_, entry, "[urgency]");
    }
    if (urgency_->empty())
      problems_.add(urgency_line_, "[urgency] is empty: expected an age for 1, 2, 3 or 4");
    completeAges();
  }

  /// An urgency without an age uses that of the next lower one.
  void completeAges() {
    auto& ages = definition_.rules.ages;
    for (std::size_t i = 1; i < ages.size(); ++i) {
      if (ages[i] && ages[i - 1] && *ages[i] > *ages[i - 1]) {
        problems_.add(lines_[i], "the age " + ageText(*ages[i]) + " at urgency " + std::to_string(i + 1) +
                                     " exceeds " + ageText(*ages[i - 1]) +
                                     " at a lower urgency: expected at most that");
      }
      if (!ages[i]) ages[i] = ages[i - 1];
    }
  }

  void checkWhole() {
    if (definition_.kind == Kind::units && !has_include_) {
      problems_.add(holder_line_, "no include pattern names the units: kind units needs at least one");
    }
    if (definition_.cache_class == CacheClass::expirable) checkExpirable();
    definition_.enabled = definition_.cache_class != CacheClass::personal;
    for (const TomlValue& root : roots_) {
      if (const auto reason = refusalAsWritten(*root.string(), definition_)) {
        object(root, "root", *root.string(), *reason);
      }
    }
  }

  void checkExpirable() {
    for (const std::size_t index : {std::size_t{0}, std::size_t{3}}) {
      if (lines_[index] == 0) continue;
      problems_.add(lines_[index],
                    "urgency " + std::to_string(index + 1) +
                        " of a holder of class expirable: expected ages at urgency 2 and 3 only");
    }
    if (definition_.rules.keep_newest == 0 && definition_.rules.keep_bytes == 0) {
      problems_.add(holder_line_,
                    "no floor of a holder of class expirable: expected keep_newest or keep_bytes");
    }
  }

  Problems& problems_;
  Definition definition_;
  const TomlValue::Table* holder_ = nullptr;
  const TomlValue::Table* urgency_ = nullptr;
  bool has_include_ = false;
  std::size_t holder_line_ = 0;
  std::size_t urgency_line_ = 0;
  std::array<std::size_t, client::urgency_count> lines_{};  // of the ages; 0: none
  TomlValue::Array roots_;                                  // those that are well-formed
};

const std::vector<DefinitionParser::Key>& DefinitionParser::keys() {
  using P = DefinitionParser;
  static const std::vector<Key> list = {
      {"name", &P::readName, true},
      {"kind", &P::readKind, true},
      {"for", &P::readOwner, true},
      {"class", &P::readClass, true},
      {"summary", &P::readSummary, true},
      {"needs", &P::readNeeds},
      {"roots", &P::readRoots, true},
      {"include", &P::readInclude},
      {"exclude", &P::readExclude},
      {"markers", &P::readMarkers},
      {"in_use", &P::readInUse},
      {"unit_locks", &P::readUnitLocks},
      {"open_files_stay", &P::readOpenFiles},
      {"tagged_only", &P::readTagged},
      {"keep_newest", &P::readNewest},
      {"keep_bytes", &P::readBytes},
  };
  return list;
}

}  // namespace

Definition definitionOf(const TomlValue::Table& root, Problems& problems) {
  return DefinitionParser(problems).parse(root);
}

}  // namespace kelvane::caches
