#include "caches/safety.h"

#include <map>

namespace kelvane::caches {

std::optional<std::string> variableDefault(const std::string& name) {
  static const std::map<std::string, std::string> defaults = {
      {"XDG_CACHE_HOME", "~/.cache"},
      {"XDG_CONFIG_HOME", "~/.config"},
      {"XDG_DATA_HOME", "~/.local/share"},
  };
  const auto found = defaults.find(name);
  return found == defaults.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace kelvane::caches
