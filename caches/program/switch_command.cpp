// `enable` and `disable`: root changes files beside the definitions, a user changes a list in that user's
// own file.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "caches/program/commands.h"
#include "caches/program/user_list.h"
#include "platform/foundation/file_descriptor.h"
#include "tools/json.h"
#include "tools/problem.h"

namespace kelvane::caches {
namespace {

using tools::Problem;

enum class Entry : std::uint8_t { none, mask, file };

/// The kind of the administrator's file of this name.
Entry entryAt(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return Entry::none;
  std::string target(PATH_MAX, '\0');
  const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
  if (length < 0) return Entry::file;
  target.resize(static_cast<std::size_t>(length));
  return target == "/dev/null" ? Entry::mask : Entry::file;
}

[[noreturn]] void fail(const std::string& what, const std::string& path) {
  const int error = errno;
  throw Problem(error == EACCES || error == EPERM ? tools::exit_refused : tools::exit_failed,
                fmt::format("cannot {} {}: {}", what, path, std::strerror(error)));
}

bool isMasked(const DefinitionStore& store, const std::string& name) {
  return std::find(store.masked.begin(), store.masked.end(), name) != store.masked.end();
}

void makeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) fail("create", path);
}

void unmask(const std::string& definition) {
  if (entryAt(definition) != Entry::mask) {
    throw Problem(tools::exit_failed,
                  fmt::format("{} is not a link to /dev/null; change it by hand", definition));
  }
  if (::unlink(definition.c_str()) != 0) fail("remove", definition);
}

void createEmpty(const std::string& path) {
  const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!file && errno != EEXIST) fail("create", path);
}

struct Outcome {
  bool enabled;
  std::string how;  // what was done; empty: nothing was needed
};

Outcome enableForAll(const std::string& name, const DefinitionStore& store, const std::string& directory) {
  const std::string definition = directory + "/" + name + ".toml";
  if (isMasked(store, name)) {
    unmask(definition);
    return {true, "removed " + definition};
  }
  const Definition& known = definitionNamed(store, name);
  if (known.enabled) return {true, {}};
  makeDirectory(directory);
  const std::string mark = directory + "/" + name + ".enabled";
  createEmpty(mark);
  return {true, "created " + mark};
}

void mask(const std::string& definition) {
  if (entryAt(definition) == Entry::file) {
    throw Problem(
        tools::exit_failed,
        fmt::format("{} is a file of your own; remove it, or replace it by a link to /dev/null", definition));
  }
  if (::symlink("/dev/null", definition.c_str()) != 0 && errno != EEXIST) fail("create", definition);
}

Outcome disableForAll(const std::string& name, const DefinitionStore& store, const std::string& directory) {
  const std::string mark = directory + "/" + name + ".enabled";
  if (isMasked(store, name) || (!definitionNamed(store, name).enabled && entryAt(mark) == Entry::none))
    return {false, {}};
  if (definitionNamed(store, name).cache_class == CacheClass::personal && entryAt(mark) != Entry::none) {
    if (::unlink(mark.c_str()) != 0) fail("remove", mark);
    return {false, "removed " + mark};
  }
  makeDirectory(directory);
  const std::string definition = directory + "/" + name + ".toml";
  mask(definition);
  return {false, definition + " is a link to /dev/null"};
}

/// A user can only enable what that user has disabled.
Outcome enableForUser(const std::string& name, const DefinitionStore& store) {
  if (isMasked(store, name) || !definitionNamed(store, name).enabled) {
    throw Problem(tools::exit_refused,
                  fmt::format("only root can enable {}, which is disabled for all users", name));
  }
  UserList list = UserList::read();
  if (!list.remove(name)) return {true, {}};
  list.write();
  return {true, "for you, in " + list.path()};
}

Outcome disableForUser(const std::string& name, const DefinitionStore& store) {
  if (!isMasked(store, name))
    static_cast<void>(definitionNamed(store, name));  // an unknown name is a Problem
  UserList list = UserList::read();
  if (!list.add(name)) return {false, {}};
  list.write();
  return {false, "for you, in " + list.path()};
}

void report(const Console& console, const Outcome& outcome) {
  const std::string& name = console.request.name;
  const char* const state = outcome.enabled ? "enabled" : "disabled";
  if (console.json) {
    print(tools::jsonText(Dictionary{{"command", outcome.enabled ? "caches enable" : "caches disable"},
                                     {"name", name},
                                     {"enabled", outcome.enabled},
                                     {"changed", !outcome.how.empty()}}));
  } else if (outcome.how.empty()) {
    print(fmt::format("{} is {} already.\n", name, state));
  } else {
    print(fmt::format("{} is {} now: {}.\n", name, state, outcome.how));
  }
}

}  // namespace

int enableCommand(const Console& console, const DefinitionStore& store,
                  const DefinitionDirectories& directories) {
  const std::string& name = console.request.name;
  report(console, ::geteuid() == 0 ? enableForAll(name, store, directories.own) : enableForUser(name, store));
  return tools::exit_met;
}

int disableCommand(const Console& console, const DefinitionStore& store,
                   const DefinitionDirectories& directories) {
  const std::string& name = console.request.name;
  report(console,
         ::geteuid() == 0 ? disableForAll(name, store, directories.own) : disableForUser(name, store));
  return tools::exit_met;
}

}  // namespace kelvane::caches
