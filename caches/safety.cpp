#include "caches/safety.h"

#include <algorithm>
#include <array>
#include <map>

#include "caches/path_names.h"
#include "caches/places.h"
#include "caches/quotation.h"

namespace kelvane::caches {
namespace {

using Reason = std::optional<std::string>;

bool isPlainName(const std::string& name) { return !name.empty() && name != "." && name != ".."; }

Names literalStart(const std::string& pattern) {
  Names names = namesOf(pattern);
  names.erase(std::find_if(names.begin(), names.end(), hasWildcard), names.end());
  return names;
}

bool endsWith(const std::string& text, std::string_view end) {
  return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool isCompressed(const std::string& pattern) {
  constexpr std::array<std::string_view, 4> suffixes{".gz", ".xz", ".zst", ".bz2"};
  return std::any_of(suffixes.begin(), suffixes.end(),
                     [&](std::string_view suffix) { return endsWith(pattern, suffix); });
}

bool isFailedDownload(const std::string& pattern) { return endsWith(pattern, "*.lastUpdated"); }

/// Whether it is a unit that may be outside hidden directories: NAME/node_modules, NAME/target/PROFILE.
bool isBuildDirectory(const std::string& pattern, bool tagged) {
  const Names names = namesOf(pattern);
  if (names.back() == "node_modules") return true;
  return tagged && !isAllWildcards(names.back()) &&
         std::find(names.begin(), names.end() - 1, "target") != names.end() - 1;
}

/// Decides about one root. `names_` are below the home directory, or below "/" for the system's.
class Judge {
 public:
  Judge(Names names, const Definition& definition) : names_(std::move(names)), definition_(definition) {}

  [[nodiscard]] Reason refusal() const {
    if (Reason reason = forbiddenName(names_)) return reason;
    if (Reason reason = kept(names_)) return reason;
    if (Reason reason = forbiddenPattern()) return reason;
    return definition_.owner == Owner::system ? unlessPlaced(systemPlaces()) : unlessInHome();
  }

 private:
  [[nodiscard]] Reason forbiddenName(const Names& names) const {
    for (const std::string& name : names) {
      if (isForbiddenName(name, definition_.owner)) {
        return inQuotes(name) + " holds data that is not a cache, and no holder can name it";
      }
    }
    return std::nullopt;
  }

  [[nodiscard]] Reason kept(const Names& names) const {
    for (const Names& kept : keptPaths(definition_.owner)) {
      if (!beginsWith(names, kept)) continue;
      return inQuotes(pathOf(kept.begin(), kept.end())) + " is not a cache that can be made again";
    }
    return std::nullopt;
  }

  [[nodiscard]] Reason forbiddenPattern() const {
    for (const std::string& pattern : definition_.rules.include) {
      if (Reason reason = forbiddenName(namesOf(pattern))) return reason;
      Names whole = names_;
      for (std::string& name : literalStart(pattern)) whole.push_back(std::move(name));
      if (Reason reason = kept(whole)) return reason;
    }
    return std::nullopt;
  }

  [[nodiscard]] Reason unlessInHome() const {
    for (const Names& home : cacheHomes()) {
      if (beginsWith(names_, home)) return unlessInCacheHome(home.size());
    }
    if (names_.front() == ".config") return unlessNamedCache();
    if (names_.front().front() != '.' && areBuildDirectories()) return std::nullopt;
    return unlessPlaced(userPlaces());
  }

  [[nodiscard]] Reason unlessInCacheHome(std::size_t depth) const {
    if (names_.size() > depth && !isAllWildcards(names_[depth])) return std::nullopt;
    const auto& include = definition_.rules.include;
    const bool all_named =
        !include.empty() && std::none_of(include.begin(), include.end(),
                                         [](const auto& pattern) { return literalStart(pattern).empty(); });
    if (definition_.rules.tagged_only || (names_.size() == depth && all_named)) return std::nullopt;
    return "holds the caches of all programs: name one below it, or use tagged_only";
  }

  [[nodiscard]] Reason unlessNamedCache() const {
    constexpr std::size_t below_program = 2;
    if (names_.size() > below_program &&
        std::any_of(names_.begin() + below_program, names_.end(), isCacheName)) {
      return std::nullopt;
    }
    return "holds settings: expected a directory of a known name below ~/.config/PROGRAM, such as Cache, "
           "\"Code Cache\", GPUCache, CachedData";
  }

  [[nodiscard]] bool areBuildDirectories() const {
    const auto& rules = definition_.rules;
    return definition_.cache_class == CacheClass::personal && definition_.kind == Kind::units &&
           !rules.include.empty() &&
           std::all_of(rules.include.begin(), rules.include.end(), [&](const std::string& pattern) {
             const std::string below_root = pathOf(names_.end() - 1, names_.end()) + "/" + pattern;
             return isBuildDirectory(below_root, rules.tagged_only);
           });
  }

  [[nodiscard]] Reason unlessPlaced(const std::vector<Place>& places) const {
    for (const Place& place : places) {
      if (beginsWith(names_, place.path)) return unlessByRule(place);
    }
    if (definition_.owner == Owner::system) {
      return "is outside the system's cache directories: expected one below /var/cache, /var/log, "
             "/var/lib/apt/lists, "
             "/var/lib/systemd/coredump, /var/crash, /var/tmp or /tmp";
    }
    return "is outside the cache directories of a home: expected one such as ~/.cache/NAME or that of a "
           "known tool";
  }

  [[nodiscard]] Reason unlessByRule(const Place& place) const {
    const bool must_be_inside = place.rule == Place::Rule::inside || place.rule == Place::Rule::inside_named;
    if (must_be_inside && (names_.size() == place.path.size() || isAllWildcards(names_[place.path.size()]))) {
      return "is shared by many programs: name a directory below it";
    }
    const auto& include = definition_.rules.include;
    if (place.rule == Place::Rule::whole || place.rule == Place::Rule::inside) return std::nullopt;
    if (include.empty() || std::any_of(include.begin(), include.end(), isAllWildcards)) {
      return "holds more than a cache: name what may go by include patterns";
    }
    if (place.rule == Place::Rule::rotated_logs &&
        !std::all_of(include.begin(), include.end(), isCompressed)) {
      return "holds logs that are being written: include patterns must end in .gz, .xz, .zst or .bz2";
    }
    if (place.rule == Place::Rule::failed_downloads &&
        !std::all_of(include.begin(), include.end(), isFailedDownload)) {
      return "holds what was installed by hand: include patterns must end in \"*.lastUpdated\"";
    }
    return std::nullopt;
  }

 public:
  /// The paths that are kept, below a home or "/".
  static std::vector<Names> keptPaths(Owner owner) {
    if (owner == Owner::system) return keptInSystem();
    std::vector<Names> paths = keptInHomes();
    for (const Names& home : cacheHomes()) {
      for (const Names& kept : keptInCacheHomes()) {
        paths.push_back(home);
        paths.back().insert(paths.back().end(), kept.begin(), kept.end());
      }
    }
    return paths;
  }

 private:
  const Names names_;
  const Definition& definition_;
};

/// The names of `path` below `above`, both absolute; nothing when it is not below it, or not plain.
std::optional<Names> namesBelow(const std::string& path, const std::string& above) {
  if (path.empty() || path.front() != '/') return std::nullopt;
  Names names = namesOf(std::string_view(path).substr(1));
  const Names start = above.empty() ? Names() : namesOf(std::string_view(above).substr(1));
  const bool is_below = names.size() > start.size() && std::equal(start.begin(), start.end(), names.begin());
  if (!is_below || !std::all_of(names.begin(), names.end(), isPlainName)) return std::nullopt;
  names.erase(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(start.size()));
  return names;
}

bool isHome(const std::string& home) { return home.size() > 1 && namesBelow(home, "").has_value(); }

bool isAtOrBelow(const std::string& path, const std::string& above) {
  return path.compare(0, above.size(), above) == 0 &&
         (path.size() == above.size() || path[above.size()] == '/');
}

std::optional<Names> namesOfRoot(const std::string& path, const Definition& definition,
                                 const std::string& home) {
  if (definition.owner == Owner::system) return namesBelow(path, "");
  return isHome(home) ? namesBelow(path, home) : std::nullopt;
}

/// "${NAME}/rest" with the variable's default in its place.
std::string withoutVariable(const std::string& root) {
  const std::size_t end = root.find('}');
  if (root.compare(0, 2, "${") != 0 || end == std::string::npos) return root;
  return variableDefault(root.substr(2, end - 2)).value_or("") + root.substr(end + 1);
}

}  // namespace

std::optional<std::string> refusal(const std::string& path, const Definition& definition,
                                   const std::string& home, const std::vector<std::string>& personal) {
  const std::optional<Names> names = namesOfRoot(path, definition, home);
  if (!names)
    return definition.owner == Owner::system ? "is not an absolute path" : "is not below the user's home";
  for (const std::string& directory : personal) {
    if (isAtOrBelow(path, directory) || isAtOrBelow(directory, path)) {
      return inQuotes(directory) + " holds the user's documents";
    }
  }
  return Judge(*names, definition).refusal();
}

std::optional<std::string> refusalAsWritten(const std::string& root, const Definition& definition) {
  const std::string path = withoutVariable(root);
  const bool in_home = path.compare(0, 2, "~/") == 0;
  if (definition.owner == Owner::system) {
    const std::optional<Names> names = namesBelow(path, "");
    return names ? Judge(*names, definition).refusal() : "must be an absolute path without \".\" and \"..\"";
  }
  const std::optional<Names> names = in_home ? namesBelow(path.substr(1), "") : std::nullopt;
  if (names) return Judge(*names, definition).refusal();
  return "must begin with \"~/\" or a variable such as ${XDG_CACHE_HOME}, and hold no \".\" and \"..\"";
}

std::vector<std::string> protectedBelow(const std::string& path, const Definition& definition,
                                        const std::string& home) {
  const std::optional<Names> names = namesOfRoot(path, definition, home);
  if (!names) return {"**"};
  std::vector<std::string> patterns;
  for (const Names& kept : Judge::keptPaths(definition.owner)) {
    const auto below = kept.begin() + static_cast<std::ptrdiff_t>(std::min(names->size(), kept.size()));
    if (below != kept.end() && beginsWith(*names, Names(kept.begin(), below))) {
      patterns.push_back(pathOf(below, kept.end()));
    }
  }
  if (definition.owner == Owner::user && definition.kind == Kind::files) {
    for (const std::string& name : repositoryNames()) patterns.push_back("**/" + name);
  }
  return patterns;
}

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
