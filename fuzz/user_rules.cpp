// A user's own files: the rules in ~/.config/kelvane/caches.toml, and the directories that
// ~/.config/user-dirs.dirs names. Whoever writes them is not trusted: they may narrow what a definition lets
// go, and never widen it.

#include "caches/user_rules.h"

#include <fcntl.h>
#include <algorithm>

#include "caches/file_in_home.h"
#include "caches/safety.h"
#include "fuzz/scratch_directory.h"
#include "fuzz/target.h"
#include "platform/foundation/file_descriptor.h"

namespace kelvane::fuzz {
namespace {

using caches::Definition;
using caches::Narrowed;

struct Home {
  Home() {
    directory.makeDirectory(".config/kelvane");
    descriptor = FileDescriptor(::open(directory.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  }
  const ScratchDirectory directory;
  FileDescriptor descriptor;
};

Definition sample() {
  using std::chrono::hours;
  Definition definition;
  definition.name = "npm";
  definition.roots = {"~/.npm/_cacache"};
  definition.rules.ages = {std::nullopt, hours(30 * 24), hours(7 * 24), hours(1)};
  definition.rules.include = {"tmp/**"};
  definition.rules.exclude = {"kept"};
  definition.rules.keep_bytes = 1000;
  return definition;
}

bool isAtLeast(const client::CacheRules& narrowed, const client::CacheRules& rules) {
  for (std::size_t i = 0; i < rules.ages.size(); ++i) {
    if (narrowed.ages[i] && (!rules.ages[i] || *narrowed.ages[i] < *rules.ages[i])) return false;
  }
  return true;
}

bool keepsOrder(const client::CacheRules& rules) {
  for (std::size_t i = 1; i < rules.ages.size(); ++i) {
    if (rules.ages[i - 1] && (!rules.ages[i] || *rules.ages[i] > *rules.ages[i - 1])) return false;
  }
  return true;
}

bool isSameBut(const Definition& a, const Definition& b) {
  return a.name == b.name && a.roots == b.roots && a.kind == b.kind && a.owner == b.owner &&
         a.rules.include == b.rules.include && a.rules.tagged_only == b.rules.tagged_only &&
         a.rules.keep_newest == b.rules.keep_newest && a.rules.open_files_stay == b.rules.open_files_stay;
}

void requireThatItIsNarrower(const Narrowed& narrowed, const Definition& definition) {
  const Definition& it = narrowed.definition;
  require(isSameBut(it, definition), "a user changes neither roots nor what they include");
  require(isAtLeast(it.rules, definition.rules), "a user's ages are at least the definition's");
  require(keepsOrder(it.rules), "a higher urgency lets go at least what a lower one does");
  require(it.rules.keep_bytes >= definition.rules.keep_bytes, "a user's floor is at least the definition's");
  require(it.rules.exclude.size() >= definition.rules.exclude.size() &&
              std::equal(definition.rules.exclude.begin(), definition.rules.exclude.end(),
                         it.rules.exclude.begin()),
          "a user's excludes are added to the definition's");
  if (narrowed.reason.empty()) return;
  require(it.rules.ages == definition.rules.ages && it.rules.exclude == definition.rules.exclude,
          "a file with an error changes nothing");
  require(
      std::none_of(narrowed.reason.begin(), narrowed.reason.end(), [](char c) { return c >= 0 && c < ' '; }),
      "a reason is one line without control characters");
}

void requireDirectories(const Home& home) {
  const auto personal = caches::personalDirectories(home.descriptor.get(), "/home/user");
  constexpr std::size_t most_directories = 64;
  require(personal.size() <= most_directories, "no more directories than the reader takes");
  for (const std::string& path : personal) {
    require(!path.empty() && path != "/home/user", "the home itself is not a directory in it");
    require(path.find('\n') == std::string::npos && path.find('"') == std::string::npos,
            "a directory ends with its quotation mark");
  }
}

}  // namespace

void examine(std::span<const std::uint8_t> input) {
  static const Home home;
  static const Definition definition = sample();
  home.directory.write(".config/kelvane/caches.toml", input);
  home.directory.write(".config/user-dirs.dirs", input);
  const Narrowed narrowed = caches::narrow(definition, home.descriptor.get());
  require(input.size() <= caches::largest_file_in_home || !narrowed.reason.empty(),
          "a file has a largest size");
  requireThatItIsNarrower(narrowed, definition);
  Definition disabled = definition;
  disabled.enabled = false;
  require(!caches::narrow(disabled, home.descriptor.get()).definition.enabled, "a user enables nothing");
  requireDirectories(home);
}

}  // namespace kelvane::fuzz
