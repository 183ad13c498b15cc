#include "support/grants.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <utility>

#include "common/keys.h"
#include "platform/foundation/file_descriptor.h"
#include "platform/foundation/property_list.h"
#include "support/grant_directory.h"
#include "support/log.h"

namespace kelvane {
namespace {

constexpr const char* speaker = "loadEntitlementGrants";
constexpr std::size_t largest_file = std::size_t{1} << 20;
constexpr std::size_t largest_record = std::size_t{1} << 20;  // of a user or group

/// The file's bytes, or why there are none.
std::string readTrusted(int directory, const std::string& name, Data::Bytes& bytes) {
  // Owner and mode are asked of what was opened, not of what the path may lead to a moment later.
  const FileDescriptor file(::openat(directory, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) return std::strerror(errno);
  if (const char* reason = whyDistrusted(status)) return reason;
  bytes.resize(largest_file + 1);
  std::size_t size = 0;
  while (size < bytes.size()) {
    const ssize_t n = ::read(file.get(), bytes.data() + size, bytes.size() - size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::strerror(errno);
    if (n == 0) break;
    size += static_cast<std::size_t>(n);
  }
  if (size > largest_file) return "it is too large";
  bytes.resize(size);
  return {};
}

/// Calls a getpwnam_r-like function with as much room as it asks for; nothing when there is no such name.
template <class Record, class Id>
std::optional<Id> lookUp(int (*function)(const char*, Record*, char*, std::size_t, Record**), Id Record::*id,
                         const std::string& name) {
  for (std::vector<char> room(1024); room.size() <= largest_record; room.resize(room.size() * 2)) {
    Record record{};
    Record* found = nullptr;
    const int error = function(name.c_str(), &record, room.data(), room.size(), &found);
    if (error == ERANGE) continue;
    return error == 0 && found != nullptr ? std::optional<Id>(record.*id) : std::nullopt;
  }
  return std::nullopt;
}

/// A number that the kernel uses for somebody; all ones is nobody's.
std::optional<id_t> identity(const Value& number) {
  const bool is_one =
      number.isNumber() && !number.isBoolean() && number == Value(number.unsignedLongLongValue());
  if (!is_one || number.unsignedLongLongValue() >= static_cast<id_t>(-1)) return std::nullopt;
  return static_cast<id_t>(number.unsignedLongLongValue());
}

/// The property list of a file becoming a grant. `problem` says why it cannot.
class GrantReader {
 public:
  /// `path` is what the file is called in the log.
  GrantReader(int directory, const std::string& name, std::string path)
      : directory_(directory), name_(name), path_(std::move(path)) {}

  std::optional<Grant> read() {
    Data::Bytes bytes;
    problem_ = readTrusted(directory_, name_, bytes);
    if (problem_.empty()) {
      const PropertyListResult parsed = propertyListWithData(bytes);
      if (!parsed.error) readRoot(parsed.value);
      problem_ = parsed.error.value_or(problem_);
    }
    if (problem_.empty()) return matches_nobody_ ? std::nullopt : std::optional(std::move(grant_));
    KVLog(3, "%s ignoring %s: %s", speaker, path_, problem_);
    return std::nullopt;
  }

 private:
  void readRoot(const Value& root) {
    const Dictionary* dictionary = root.dictionary();
    if (dictionary == nullptr) return fail("it is not a dictionary");
    readNames((*dictionary)[entitlements_key]);
    readSubject(*dictionary);
  }

  void readNames(const Value& names) {
    if (names.array() == nullptr) return fail(std::string("it has no array ") + entitlements_key);
    for (const Value& name : *names.array()) {
      if (name.string() == nullptr) return fail("an entitlement is not a string");
      grant_.names.insert(*name.string());
    }
  }

  void readSubject(const Dictionary& dictionary) {
    if (dictionary.contains("user")) {
      grant_.user = resolve("user", dictionary["user"], [](const std::string& name) {
        return lookUp(&::getpwnam_r, &passwd::pw_uid, name);
      });
    }
    if (dictionary.contains("group")) {
      grant_.group = resolve("group", dictionary["group"], [](const std::string& name) {
        return lookUp(&::getgrnam_r, &group::gr_gid, name);
      });
    }
    if (dictionary.contains("label")) {
      const std::string* label = dictionary["label"].string();
      if (label == nullptr) return fail("its label is not a string");
      grant_.label = *label;
    }
    if (!grant_.user && !grant_.group && !grant_.label && !matches_nobody_) {
      fail("it names no user, group or label");
    }
  }

  std::optional<id_t> resolve(const char* kind, const Value& who,
                              std::optional<id_t> (*look_up)(const std::string&)) {
    const std::string* name = who.string();
    const std::optional<id_t> id = name != nullptr ? look_up(*name) : identity(who);
    if (id) return id;
    if (name == nullptr) {
      fail(std::string("its ") + kind + " is neither a name nor a number");
    } else if (!matches_nobody_) {
      matches_nobody_ = true;
      KVLog(3, "%s %s grants nothing: there is no %s %@", speaker, path_, kind, *name);
    }
    return std::nullopt;
  }

  void fail(std::string problem) {
    if (problem_.empty()) problem_ = std::move(problem);
  }

  const int directory_;
  const std::string& name_;
  const std::string path_;
  Grant grant_;
  bool matches_nobody_ = false;
  std::string problem_;  // the first one; empty for none
};

}  // namespace

const char* whyDistrusted(const struct stat& status) {
  if (!S_ISREG(status.st_mode)) return "it is not a regular file";
  if (status.st_uid != 0 && status.st_uid != ::geteuid()) return "it is owned by another user";
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "others can write it";
  return nullptr;
}

bool Grant::matches(const xpc::PeerCredentials& peer) const {
  if (user && *user != peer.uid) return false;
  if (group && *group != peer.gid &&
      std::find(peer.groups.begin(), peer.groups.end(), *group) == peer.groups.end()) {
    return false;
  }
  return !label || (peer.label && *label == *peer.label);
}

Grants readGrants(const std::vector<std::string>& folders) {
  Grants result;
  for (const std::string& folder : folders) {
    const GrantDirectory directory = openGrantDirectory(folder);
    if (!directory.problem.empty()) {
      KVLog(3, "%s ignoring %s: %s", speaker, folder, directory.problem);
      result.any_file = true;  // what the administrator wanted is unknown
    }
    for (const std::string& name : directory.files) {
      result.any_file = true;
      GrantReader reader(directory.directory.get(), name, folder + "/" + name);
      if (std::optional<Grant> grant = reader.read()) result.grants.push_back(std::move(*grant));
    }
  }
  return result;
}

}  // namespace kelvane
