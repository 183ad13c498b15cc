// What always holds: `held_` is what the file holds, as of the last version taken in, except for the keys in
// `unsaved_`. Changes are worked out between `held_` and the new value within the transaction that writes
// them, after what others committed has been taken in, so they always lead from what the file has to what was
// asked.

#include "platform/foundation/user_defaults.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/foundation/archive.h"
#include "platform/foundation/footprint.h"
#include "platform/foundation/identical.h"
#include "platform/foundation/suite_file.h"

namespace kelvane {

using foundation::Change;
using foundation::SuiteFile;
using foundation::SuiteState;

namespace {

bool isSuiteName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\0", 2)) == name.npos;
}

/// Both iterate in the order of their keys.
std::vector<Change> difference(const Dictionary& before, const Dictionary& after) {
  std::vector<Change> changes;
  auto old = before.begin();
  for (const auto& [key, value] : after) {
    for (; old != before.end() && old->first < key; ++old)
      changes.push_back({Change::remove_entry, old->first});
    const bool same_key = old != before.end() && old->first == key;
    if (!same_key || !foundation::identical(old->second, value))
      changes.push_back({Change::put_entry, key, &value});
    if (same_key) ++old;
  }
  for (; old != before.end(); ++old) changes.push_back({Change::remove_entry, old->first});
  return changes;
}

/// The memory that an entry takes in its dictionary.
std::size_t entrySize(std::string_view entry, const Value& value) {
  if (value.isNothing()) return 0;
  return foundation::entry_footprint + entry.size() + foundation::footprint(value);
}

}  // namespace

std::shared_ptr<UserDefaults> UserDefaults::initWithSuiteName(std::string_view name,
                                                              const std::string& directory,
                                                              UserDefaultsOptions options,
                                                              std::string* reason) {
  const auto refuse = [&](std::string why) -> std::shared_ptr<UserDefaults> {
    if (reason != nullptr) *reason = std::move(why);
    return nullptr;
  };
  if (!isSuiteName(name)) return refuse(fmt::format("\"{}\" is no name for a suite", name));
  const std::string path = fmt::format("{}/{}.db", directory, name);
  std::shared_ptr<UserDefaults> defaults(new UserDefaults(path, std::move(options)));
  return defaults->open() ? defaults : refuse(defaults->last_error_);
}

UserDefaults::UserDefaults(std::string path, UserDefaultsOptions options)
    : path_(std::move(path)), options_(std::move(options)) {}

UserDefaults::~UserDefaults() = default;

Value UserDefaults::objectForKey(std::string_view key) const { return held_[key]; }

void UserDefaults::setObject(const Value& value, std::string_view key) {
  last_error_.clear();
  if (value.nestsDeeperThan(archive_depth_limit)) {
    last_error_ = fmt::format("the value for \"{}\" nests deeper than {}", key, archive_depth_limit);
    return;
  }
  const bool written = ready() && write(key, value);
  held_.set(key, value);
  footprints_.erase(footprints_.lower_bound(key), footprints_.upper_bound(key));
  if (written) {
    unsaved_.erase(unsaved_.lower_bound(key), unsaved_.upper_bound(key));
  } else {
    unsaved_.emplace(key);
  }
  // What a damaged file has taken in is lost with it: it is all written again, into the next one.
  if (!written && file_ != nullptr && file_->damaged() && ready()) writeUnsaved();
}

bool UserDefaults::setEntry(const Value& value, std::string_view entry, std::string_view key) {
  last_error_.clear();
  if (value.nestsDeeperThan(archive_depth_limit)) {
    last_error_ = fmt::format("the value for \"{}\" nests deeper than {}", entry, archive_depth_limit);
    return false;
  }
  if (storeEntry(value, entry, key)) return true;
  // A damaged file is set aside, and the new one gets everything that is held.
  return file_ != nullptr && file_->damaged() && storeEntry(value, entry, key);
}

bool UserDefaults::storeEntry(const Value& value, std::string_view entry, std::string_view key) {
  if (!ready() || !writeUnsaved()) return false;
  if (!write(key, [&] { return entryChange(value, entry, key); })) return false;
  holdEntry(value, entry, key);
  return true;
}

void UserDefaults::holdEntry(const Value& value, std::string_view entry, std::string_view key) {
  const Dictionary* const before = held_[key].dictionary();
  Dictionary entries = before != nullptr ? *before : Dictionary();
  const auto known = footprints_.find(key);
  if (known != footprints_.end()) known->second += entrySize(entry, value) - entrySize(entry, entries[entry]);
  if (before == nullptr) footprints_.erase(std::string(key));
  held_.remove(key);  // so that the entries are unshared and changed in place
  entries.set(entry, value);
  held_.set(key, std::move(entries));
}

void UserDefaults::keepRoom() {
  if (ready()) file_->keepRoom();
}

std::size_t UserDefaults::footprintOf(std::string_view key) {
  auto known = footprints_.find(key);
  if (known == footprints_.end()) known = footprints_.emplace(key, foundation::footprint(held_[key])).first;
  return known->second;
}

bool UserDefaults::synchronize() {
  last_error_.clear();
  if (!ready()) return false;
  if (takeInChanges() && writeUnsaved()) return true;
  return file_ != nullptr && file_->damaged() && ready() && writeUnsaved();
}

/// Whether there is a file to work with, opening it again where the one at hand is not, or no longer, it.
bool UserDefaults::ready() {
  if (file_ != nullptr && !file_->damaged() && !file_->moved()) return true;
  return open();
}

/// Opens the file, setting aside what stands in its place. Into a new file goes all that is held.
bool UserDefaults::open() {
  std::string damage = file_ != nullptr && file_->damaged() ? file_->error() : std::string();
  file_.reset();
  if (damage.empty()) damage = foundation::visibleDamage(path_);
  if (!damage.empty() && !setAside(damage)) return false;
  SuiteFile::Opened opened = SuiteFile::open(path_, options_.vfs, options_.room);
  if (opened.state == SuiteState::damaged) {
    if (!setAside(opened.error)) return false;
    opened = SuiteFile::open(path_, options_.vfs, options_.room);
  }
  if (opened.file == nullptr) {
    last_error_ = fmt::format("{}: {}", path_, opened.error);
    return false;
  }
  file_ = std::move(opened.file);
  if (opened.begun) {
    for (const auto& entry : held_) unsaved_.insert(entry.first);
  }
  if (takeInChanges()) return true;
  return file_->damaged() && !opened.begun && open();  // damaged where the check does not look
}

bool UserDefaults::setAside(const std::string& why) {
  const std::string aside = foundation::setSuiteAside(path_);
  if (aside.empty()) {
    last_error_ =
        fmt::format("{}: is damaged ({}) and cannot be set aside: {}", path_, why, std::strerror(errno));
    return false;
  }
  notices_.push_back(fmt::format("{} was damaged ({}) and is set aside as {}", path_, why, aside));
  return true;
}

bool UserDefaults::failed() {
  last_error_ = fmt::format("{}: {}", path_, file_->error());
  return false;
}

bool UserDefaults::takeInChanges() {
  if (!file_->changedElsewhere()) return file_->error().empty() || failed();
  Dictionary fresh;
  std::vector<std::string> unreadable;
  if (!file_->load(fresh, unreadable)) return failed();
  for (const std::string& key : unreadable)
    notices_.push_back(fmt::format("{}: the value for \"{}\" is damaged and is left out", path_, key));
  overlay(std::move(fresh));
  return true;
}

/// Holds what the file has, but for what it could not yet take.
void UserDefaults::overlay(Dictionary fresh) {
  for (const std::string& key : unsaved_) fresh.set(key, held_[key]);
  held_ = std::move(fresh);
  footprints_.clear();
}

bool UserDefaults::write(std::string_view key, const Value& value) {
  return write(key, [&] { return difference(key, value); });
}

/// A log without room can restart once its content is in the file, which may have room.
bool UserDefaults::write(std::string_view key, const Difference& difference) {
  const bool written =
      tryWriting(key, difference) || (file_->full() && file_->emptyLog() && tryWriting(key, difference));
  if (written) file_->keepRoom();
  return written;
}

/// Writes what differs from what the file has. Whether to sync must be known before the transaction begins,
/// and what differs only within it: in the rare case that this asks for more, it begins once more.
bool UserDefaults::tryWriting(std::string_view key, const Difference& difference) {
  bool synced = mustBeSynced(difference());
  for (;;) {
    if (!file_->begin(synced)) return failed();
    if (!takeInChanges()) break;
    const std::vector<Change> changes = difference();
    if (changes.empty()) {
      file_->rollback();
      return true;
    }
    if (synced || !mustBeSynced(changes)) {
      const auto apply = [&](const Change& change) { return file_->apply(key, change); };
      if (!std::all_of(changes.begin(), changes.end(), apply)) break;
      return file_->commit() || failed();
    }
    file_->rollback();
    synced = true;
  }
  failed();
  file_->rollback();
  return false;
}

bool UserDefaults::writeUnsaved() {
  const std::vector<std::string> keys(unsaved_.begin(), unsaved_.end());
  for (const std::string& key : keys) {
    const Value value = held_[key];  // a copy: writing may take in changes, which replaces what is held
    if (!write(key, value)) return false;
    unsaved_.erase(key);
  }
  last_error_.clear();
  return true;
}

std::vector<Change> UserDefaults::difference(std::string_view key, const Value& value) const {
  const bool unknown = unsaved_.contains(key);
  const Value& before = held_[key];
  const Dictionary* const after = value.dictionary();
  if (!unknown && before.isDictionary() && after != nullptr)
    return kelvane::difference(*before.dictionary(), *after);
  if (!unknown && foundation::identical(before, value)) return {};
  std::vector<Change> changes = {{Change::remove_entries}};
  if (value.isNothing()) {
    changes.push_back({Change::remove_key});
  } else if (after == nullptr) {
    changes.push_back({Change::put_value, {}, &value});
  } else {
    changes.push_back({Change::put_dictionary});
    for (const auto& [entry, inner] : *after) changes.push_back({Change::put_entry, entry, &inner});
  }
  return changes;
}

std::vector<Change> UserDefaults::entryChange(const Value& value, std::string_view entry,
                                              std::string_view key) const {
  const Value& before = held_[key];
  const Dictionary* const entries = before.dictionary();
  const Change change =
      value.isNothing() ? Change{Change::remove_entry, entry} : Change{Change::put_entry, entry, &value};
  if (entries == nullptr) return {{Change::remove_entries}, {Change::put_dictionary}, change};
  if (foundation::identical((*entries)[entry], value)) return {};
  return {change};
}

bool UserDefaults::mustBeSynced(const std::vector<Change>& changes) const {
  return std::any_of(changes.begin(), changes.end(), [this](const Change& change) {
    const bool entry = change.kind == Change::put_entry || change.kind == Change::remove_entry;
    return !entry || !options_.recreatable.contains(change.entry);
  });
}

}  // namespace kelvane
