#include "caches/definition_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "caches/trusted_file.h"
#include "support/paths.h"

namespace kelvane::caches {
namespace {

constexpr std::string_view definition_suffix = ".toml";
constexpr std::string_view enabled_suffix = ".enabled";

bool hasSuffix(const std::string& name, std::string_view suffix) {
  return name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string stemOf(const std::string& file) { return file.substr(0, file.rfind('.')); }

struct Listing {
  FileDescriptor directory;
  std::vector<std::string> files;  // sorted
  std::string problem;             // why it cannot be used; also empty when the directory is missing
};

/// The relevant names, at most one more than most_definitions.
std::vector<std::string> filesOf(DIR* directory) {
  std::vector<std::string> files;
  while (const dirent* entry = ::readdir(directory)) {
    const std::string name = entry->d_name;
    if (name.front() == '.' || !(hasSuffix(name, definition_suffix) || hasSuffix(name, enabled_suffix)))
      continue;
    files.push_back(name);
    if (files.size() > most_definitions) break;
  }
  std::sort(files.begin(), files.end());
  return files;
}

Listing list(const std::string& path) {
  Listing listing;
  listing.directory = openTrustedDirectory(path, listing.problem);
  if (!listing.directory) {
    if (errno == ENOENT) listing.problem.clear();
    return listing;
  }
  struct Close {
    void operator()(DIR* directory) const { ::closedir(directory); }
  };
  const int copy = ::openat(listing.directory.get(), ".", O_RDONLY | O_CLOEXEC | O_DIRECTORY);
  const std::unique_ptr<DIR, Close> directory(copy >= 0 ? ::fdopendir(copy) : nullptr);
  if (directory == nullptr) {
    listing.problem = std::strerror(errno);
    return listing;
  }
  listing.files = filesOf(directory.get());
  if (listing.files.size() > most_definitions) {
    listing.problem = "it holds more than " + std::to_string(most_definitions) + " files: none is used";
  }
  return listing;
}

bool isMask(int directory, const std::string& file) {
  constexpr std::string_view nowhere = "/dev/null";
  std::array<char, 16> target{};
  const ssize_t size = ::readlinkat(directory, file.c_str(), target.data(), target.size());
  return size > 0 && std::string_view(target.data(), static_cast<std::size_t>(size)) == nowhere;
}

/// Merges the two directories.
class Merger {
 public:
  DefinitionStore merge(const DefinitionDirectories& directories) {
    const Listing shipped = list(directories.shipped);
    const Listing own = list(directories.own);
    // What the administrator masked is not known when a directory cannot be read, so nothing is used then.
    const bool shipped_is_refused = refuse(directories.shipped, shipped);
    const bool own_is_refused = refuse(directories.own, own);
    if (shipped_is_refused || own_is_refused) return std::move(store_);
    for (const std::string& file : shipped.files) addShipped(directories.shipped, shipped, file);
    for (const std::string& file : own.files) addOwn(directories.own, own, file);
    for (const std::string& file : own.files) enable(directories.own, own, file);
    for (auto& [name, definition] : by_name_) store_.definitions.push_back(std::move(definition));
    return std::move(store_);
  }

 private:
  bool refuse(const std::string& path, const Listing& listing) {
    if (!listing.problem.empty()) store_.problems.push_back({path, 0, listing.problem});
    return !listing.problem.empty();
  }

  void addShipped(const std::string& path, const Listing& listing, const std::string& file) {
    if (!hasSuffix(file, definition_suffix)) return;
    shipped_.insert(stemOf(file));
    add(path, listing, file);
  }

  void addOwn(const std::string& path, const Listing& listing, const std::string& file) {
    if (!hasSuffix(file, definition_suffix)) return;
    by_name_.erase(stemOf(file));
    if (isMask(listing.directory.get(), file)) {
      store_.masked.push_back(stemOf(file));
    } else {
      add(path, listing, file);
    }
  }

  void add(const std::string& path, const Listing& listing, const std::string& file) {
    DefinitionResult result = readDefinitionAt(listing.directory.get(), file, path + "/" + file);
    std::move(result.problems.begin(), result.problems.end(), std::back_inserter(store_.problems));
    if (!result.definition) return;
    result.definition->shipped = shipped_.count(stemOf(file)) != 0;
    by_name_[stemOf(file)] = std::move(*result.definition);
  }

  void enable(const std::string& path, const Listing& listing, const std::string& file) {
    if (!hasSuffix(file, enabled_suffix)) return;
    const TrustedFile content = readTrustedFile(listing.directory.get(), file.c_str(), 0);
    const auto definition = by_name_.find(stemOf(file));
    if (!content.problem.empty()) {
      store_.problems.push_back({path + "/" + file, 0, content.problem});
    } else if (definition != by_name_.end()) {
      definition->second.enabled = true;
    } else if (std::find(store_.masked.begin(), store_.masked.end(), stemOf(file)) == store_.masked.end()) {
      store_.problems.push_back({path + "/" + file, 0, "no usable definition has this name"});
    }
  }

  DefinitionStore store_;
  std::map<std::string, Definition> by_name_;
  std::set<std::string> shipped_;  // names
};

}  // namespace

DefinitionDirectories definitionDirectories() {
  return {"/usr/lib/kelvane/caches.d", configurationDirectory() + "/caches.d"};
}

DefinitionStore readDefinitions(const DefinitionDirectories& directories) {
  return Merger().merge(directories);
}

}  // namespace kelvane::caches
