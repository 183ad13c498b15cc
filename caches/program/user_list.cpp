#include "caches/program/user_list.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <vector>

#include "platform/foundation/file_descriptor.h"
#include "tools/problem.h"

namespace kelvane::caches {
namespace {

using tools::Problem;

constexpr std::size_t largest_file = std::size_t{64} << 10;
constexpr const char* heading = "# Written by kelvane-caches enable and disable.\n";

[[noreturn]] void fail(const std::string& what, const std::string& path) {
  throw Problem(tools::exit_failed, fmt::format("cannot {} {}: {}", what, path, std::strerror(errno)));
}

/// From the system's records, not from $HOME, because the workers use that one.
std::string homeDirectory() {
  const passwd* const user = ::getpwuid(::getuid());
  if (user == nullptr || user->pw_dir == nullptr || user->pw_dir[0] != '/')
    throw Problem(tools::exit_failed, fmt::format("the user {} has no home directory", ::getuid()));
  return user->pw_dir;
}

/// Nothing when the file is missing.
std::optional<std::string> contentsOf(const std::string& path) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file && errno == ENOENT) return std::nullopt;
  if (!file) fail("read", path);
  std::string text(largest_file + 1, '\0');
  const ssize_t length = ::read(file.get(), text.data(), text.size());
  if (length < 0) fail("read", path);
  text.resize(static_cast<std::size_t>(length));
  return text;
}

/// The names in quotation marks. Other content is detected by comparing the file with a rewritten list.
std::set<std::string> quoted(const std::string& text) {
  std::set<std::string> names;
  for (std::size_t at = text.find('"'); at != std::string::npos; at = text.find('"', at + 1)) {
    const std::size_t end = text.find('"', at + 1);
    if (end == std::string::npos) break;
    names.insert(text.substr(at + 1, end - at - 1));
    at = end;
  }
  return names;
}

std::string lineOf(const std::set<std::string>& names) {
  std::vector<std::string> words;
  words.reserve(names.size());
  for (const std::string& name : names) words.push_back('"' + name + '"');
  return fmt::format("disabled = [{}]", fmt::join(words, ", "));
}

void makeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) fail("create", path);
}

void writeFile(const std::string& path, const std::string& text) {
  std::string temporary = path + ".XXXXXX";
  const FileDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!file) fail("create", temporary);
  const bool written = ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                       ::fsync(file.get()) == 0 && std::rename(temporary.c_str(), path.c_str()) == 0;
  if (written) return;
  const int error = errno;
  ::unlink(temporary.c_str());
  errno = error;
  fail("write", path);
}

}  // namespace

UserList::UserList(std::string home)
    : home_(std::move(home)), path_(home_ + "/.config/kelvane/caches.toml") {}

UserList UserList::read() {
  UserList list(homeDirectory());
  const auto contents = contentsOf(list.path_);
  if (!contents) return list;
  list.names_ = quoted(*contents);
  list.is_own_ = list.text() == *contents;
  return list;
}

bool UserList::add(const std::string& name) {
  requireOwn(fmt::format("add \"{0}\" to the array `disabled`, as in disabled = [\"{0}\"]", name));
  return names_.insert(name).second;
}

bool UserList::remove(const std::string& name) {
  requireOwn(fmt::format("remove \"{}\" from the array `disabled`", name));
  return names_.erase(name) != 0;
}

void UserList::requireOwn(const std::string& line) const {
  if (is_own_) return;
  throw Problem(tools::exit_failed, fmt::format("{} has been edited, so it is left alone: {}", path_, line));
}

std::string UserList::text() const { return heading + lineOf(names_) + "\n"; }

void UserList::write() const {
  makeDirectory(home_ + "/.config");
  makeDirectory(home_ + "/.config/kelvane");
  writeFile(path_, text());
}

}  // namespace kelvane::caches
