#include "tools/checked_file.h"

#include <fmt/format.h>
#include <algorithm>
#include <array>
#include <string_view>

#include "common/keys.h"
#include "platform/foundation/property_list.h"
#include "platform/foundation/whole_file.h"
#include "support/entitlements.h"
#include "support/paths.h"
#include "tools/commands.h"
#include "tools/json.h"
#include "tools/problem.h"
#include "tools/unreadable.h"

namespace kelvane::tools {
namespace {

enum class Wanted : std::uint8_t { text, boolean, texts, textOrNumber };

struct Key {
  const char* name;
  Wanted wanted;
};
constexpr std::array<Key, 6> descriptor_keys = {{{KELVANE_ID, Wanted::text},
                                                 {KELVANE_SERVICES, Wanted::texts},
                                                 {KELVANE_DO_NOT_QUERY, Wanted::boolean},
                                                 {KELVANE_NOTIFICATIONS, Wanted::texts},
                                                 {KELVANE_OPT_OUT_QUOTA_EVENTS, Wanted::boolean},
                                                 {KELVANE_MULTI_USER_MODE_ONLY, Wanted::boolean}}};
constexpr std::array<Key, 4> grant_keys = {{{"user", Wanted::textOrNumber},
                                            {"group", Wanted::textOrNumber},
                                            {"label", Wanted::text},
                                            {entitlements_key, Wanted::texts}}};
constexpr std::array<const char*, 2> service_kinds = {service_kind_purge, service_kind_periodic};

bool isA(const Value& value, Wanted wanted) {
  switch (wanted) {
    case Wanted::text:
      return value.isString();
    case Wanted::boolean:
      return value.isBoolean();
    case Wanted::textOrNumber:
      return value.isString() || (value.isNumber() && !value.isBoolean());
    case Wanted::texts:
      return value.array() != nullptr && std::all_of(value.array()->begin(), value.array()->end(),
                                                     [](const Value& each) { return each.isString(); });
  }
  return false;
}

const char* nameOf(Wanted wanted) {
  switch (wanted) {
    case Wanted::text:
      return "a string";
    case Wanted::boolean:
      return "true or false";
    case Wanted::textOrNumber:
      return "a name or a number";
    case Wanted::texts:
      break;
  }
  return "an array of strings";
}

/// Collects the faults of one file.
class Check {
 public:
  Check(CheckedFile& file, std::string_view text) : file_(file), text_(text) {}

  void fault(const std::string& at, const std::string& text) { file_.faults.push_back({lineOf(at), text}); }

  template <std::size_t count>
  void keys(const std::array<Key, count>& known) {
    for (const auto& [name, value] : file_.contents) {
      const auto key = std::find_if(known.begin(), known.end(),
                                    [&name = name](const Key& each) { return name == each.name; });
      const std::string element = "<key>" + name + "</key>";
      if (key == known.end()) {
        fault(element, fmt::format("\"{}\" is no key that is known", name));
      } else if (!isA(value, key->wanted)) {
        fault(element, fmt::format("{} is not {}", name, nameOf(key->wanted)));
      }
    }
  }

  template <std::size_t count>
  void names(const char* key, const std::array<const char*, count>& known) {
    const Array* const list = file_.contents[key].array();
    if (list == nullptr) return;
    for (const Value& each : *list) {
      if (each.isString() && std::find(known.begin(), known.end(), *each.string()) == known.end()) {
        fault("<string>" + *each.string() + "</string>",
              fmt::format("{} knows no \"{}\"", key, *each.string()));
      }
    }
  }

  [[nodiscard]] const Dictionary& contents() const { return file_.contents; }

 private:
  [[nodiscard]] std::size_t lineOf(const std::string& element) const {
    const std::size_t at = element.empty() ? std::string_view::npos : text_.find(element);
    if (at == std::string_view::npos) return 0;
    return 1 + static_cast<std::size_t>(
                   std::count(text_.begin(), text_.begin() + static_cast<std::ptrdiff_t>(at), '\n'));
  }

  CheckedFile& file_;
  const std::string_view text_;
};

void checkDescriptor(Check& check) {
  check.keys(descriptor_keys);
  check.names(KELVANE_SERVICES, service_kinds);
  const Dictionary& contents = check.contents();
  const std::string* const ID = contents[KELVANE_ID].string();
  if (!contents.contains(KELVANE_ID)) check.fault("", "KELVANE_ID is missing, so no service is declared");
  if (ID != nullptr && declaredServiceSocket(*ID).empty()) {
    check.fault("<key>KELVANE_ID</key>",
                fmt::format("\"{}\" cannot be the name of the service's socket", *ID));
  }
  if (contents[KELVANE_DO_NOT_QUERY] == Value(false)) {
    check.fault("<key>KELVANE_DO_NOT_QUERY</key>",
                "KELVANE_DO_NOT_QUERY counts whatever its value; leave it out");
  }
}

void checkGrant(Check& check) {
  check.keys(grant_keys);
  check.names(entitlements_key, entitlement_names);
  const Dictionary& contents = check.contents();
  if (!contents.contains("user") && !contents.contains("group") && !contents.contains("label"))
    check.fault("", "none of user, group and label is there, so the grant is for nobody");
  if (!contents.contains(entitlements_key))
    check.fault("", fmt::format("{} is missing, so nothing is granted", entitlements_key));
}

bool isGrant(const Dictionary& contents) {
  return std::any_of(grant_keys.begin(), grant_keys.end(),
                     [&](const Key& key) { return contents.contains(key.name); });
}

Value fileValue(const CheckedFile& file) {
  Array faults;
  for (const Fault& fault : file.faults) {
    Dictionary entry{{"text", fault.text}};
    if (fault.line != 0) entry.set("line", fault.line);
    faults.append(entry);
  }
  const char* const kind = file.kind == FileKind::grant        ? "grant"
                           : file.kind == FileKind::descriptor ? "descriptor"
                                                               : "unreadable";
  return Dictionary{{"path", file.path}, {"kind", kind}, {"faults", faults}};
}

}  // namespace

CheckedFile checkFile(const std::string& path) {
  CheckedFile file{path, FileKind::unreadable, {}, {}};
  const WholeFile read = readWholeFile(path, PropertyListLimits().bytes);
  if (read.error) {
    file.faults.push_back({0, *read.error});
    return file;
  }
  const PropertyListResult list = propertyListWithData(read.bytes);
  if (list.error || !list.value.isDictionary()) {
    file.faults.push_back(list.error ? whyUnreadable(read.bytes, *list.error)
                                     : Fault{0, "it is a property list, but no dictionary"});
    return file;
  }
  file.contents = *list.value.dictionary();
  file.kind = isGrant(file.contents) ? FileKind::grant : FileKind::descriptor;
  const std::string text(read.bytes.begin(), read.bytes.end());
  Check check(file, text);
  if (file.kind == FileKind::grant) checkGrant(check);
  if (file.kind == FileKind::descriptor) checkDescriptor(check);
  std::stable_sort(file.faults.begin(), file.faults.end(),
                   [](const Fault& a, const Fault& b) { return a.line < b.line; });
  return file;
}

std::string checkScreen(const std::vector<CheckedFile>& files, const Screen& screen) {
  std::string text;
  for (const CheckedFile& file : files) {
    const std::string path = printable(screen, file.path);
    for (const Fault& fault : file.faults) {
      text += path + (fault.line != 0 ? fmt::format(":{}", fault.line) : "") + ": " +
              coloured(screen, Colour::red, printable(screen, fault.text)) + "\n";
    }
    if (file.faults.empty()) {
      text += fmt::format("{}: {} {}\n", path, file.kind == FileKind::grant ? "grant," : "descriptor,",
                          coloured(screen, Colour::green, "no fault"));
    }
  }
  return text;
}

Value checkValue(const std::vector<CheckedFile>& files) {
  Array list;
  for (const CheckedFile& file : files) list.append(fileValue(file));
  return Dictionary{{"command", "check"}, {"files", list}};
}

int checkCommand(const Options& options, const Screen& screen) {
  std::vector<CheckedFile> files;
  for (const std::string& path : options.files) files.push_back(checkFile(path));
  print(options.json ? jsonText(checkValue(files)) : checkScreen(files, screen));
  const bool faulty =
      std::any_of(files.begin(), files.end(), [](const auto& file) { return !file.faults.empty(); });
  return faulty ? exit_short : exit_met;
}

}  // namespace kelvane::tools
