#include "caches/program/wording.h"

#include <fmt/format.h>
#include <pwd.h>
#include <algorithm>
#include <array>
#include <cstring>

#include "tools/screen.h"

namespace kelvane::caches {
namespace {

using client::CacheStay;

constexpr const char* no_directory = "no such directory";

/// The length of the printable character at the beginning; 0 when there is none.
std::size_t shownCharacter(std::string_view text) {
  static const tools::Screen screen{80, false, true, false};
  constexpr std::size_t longest = 4;
  if (text.front() == '\\') return 0;
  for (std::size_t length = 1; length <= std::min(longest, text.size()); ++length) {
    const std::string_view character = text.substr(0, length);
    if (tools::columns(character) == 1 && tools::printable(screen, character) == character) return length;
  }
  return 0;
}

/// The minimum age at which a file goes at any urgency.
std::int64_t leastAge(const client::CacheRules& rules) {
  std::int64_t least = 0;
  for (const auto& age : rules.ages) {
    if (age) least = age->count();
  }
  return std::max<std::int64_t>(least, rules.youngest.count());
}

std::string stayText(const Definition& definition, CacheStay stay) {
  if (stay == CacheStay::tooYoung) return "all younger than " + ageText(leastAge(definition.rules));
  const bool in_use = stay == CacheStay::locked || stay == CacheStay::open;
  return (in_use ? "in use: " : "") + std::string(client::describe(stay));
}

bool givesSomething(const client::CacheSurvey& survey) {
  return std::any_of(
      survey.at_urgency.begin(), survey.at_urgency.end(),
      [](const client::CacheFigure& figure) { return figure.bytes != 0 || figure.items != 0; });
}

/// A lock keeps everything, so it comes first; otherwise the reason that keeps the most.
std::string stayReason(const Definition& definition, const client::CacheSurvey& survey) {
  const auto& stays = survey.stays;
  const auto less = [](const client::CacheFigure& a, const client::CacheFigure& b) {
    return a.bytes != b.bytes ? a.bytes < b.bytes : a.items < b.items;
  };
  auto greatest = std::max_element(stays.begin(), stays.end(), less);
  const auto locked = stays.begin() + static_cast<std::ptrdiff_t>(CacheStay::locked);
  if (locked->items != 0 || locked->bytes != 0) greatest = locked;
  if (greatest->bytes == 0 && greatest->items == 0) return "empty";
  return stayText(definition, static_cast<CacheStay>(greatest - stays.begin()));
}

}  // namespace

std::string ageText(std::int64_t seconds) {
  struct Unit {
    std::int64_t seconds;
    const char* name;
  };
  constexpr std::array<Unit, 4> units = {{{86400, "day"}, {3600, "hour"}, {60, "minute"}, {1, "second"}}};
  seconds = std::max<std::int64_t>(seconds, 0);
  const auto* unit = std::find_if(units.begin(), units.end(), [&](const Unit& u) {
    return seconds >= 2 * u.seconds || seconds == u.seconds || u.seconds == 1;
  });
  const std::int64_t count = seconds / unit->seconds;
  return fmt::format("{} {}{}", count, unit->name, count == 1 ? "" : "s");
}

std::string shown(std::string_view path) {
  std::string text;
  while (!path.empty()) {
    const std::size_t length = shownCharacter(path);
    if (length != 0) {
      text += path.substr(0, length);
    } else {
      text += fmt::format("\\x{:02x}", static_cast<unsigned char>(path.front()));
    }
    path.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return text;
}

std::string userName(uid_t user) {
  std::array<char, 16384> buffer{};
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
    return std::to_string(user);
  return found->pw_name;
}

const char* nameOf(Kind kind) { return kind == Kind::files ? "files" : "units"; }

const char* nameOf(Owner owner) { return owner == Owner::system ? "system" : "user"; }

const char* nameOf(CacheClass cache_class) {
  constexpr std::array<const char*, 3> names = {"regenerable", "expirable", "personal"};
  return names.at(static_cast<std::size_t>(cache_class));
}

std::string zeroReason(const Definition& definition, const RootReport& root) {
  if (!root.reason.empty()) return root.reason;
  if (givesSomething(root.survey)) return {};
  if (root.survey.error != 0) return fmt::format("cannot be read: {}", std::strerror(root.survey.error));
  if (!root.survey.complete) return "not counted in time";
  return stayReason(definition, root.survey);
}

std::string zeroReason(const Definition& definition, const HolderReport& report) {
  if (!definition.enabled && definition.cache_class == CacheClass::personal)
    return fmt::format("disabled (personal): kelvanectl caches enable {}", definition.name);
  if (!report.reason.empty()) return report.reason;
  std::string reason = no_directory;
  for (const RootReport& root : report.roots) {
    const std::string of_root = zeroReason(definition, root);
    if (of_root.empty()) return {};
    if (reason == no_directory) reason = of_root;
  }
  return reason;
}

}  // namespace kelvane::caches
