#pragma once

#include <optional>
#include <string>
#include <vector>

#include "client/cache_locks.h"
#include "client/cache_setup.h"
#include "client/folder_walk.h"
#include "client/open_files.h"

namespace kelvane::client {

/// The properties of a directory that decide about its entries.
struct CachePlace {
  bool pinned = false;    // holds .kelvane-keep
  bool writable = false;  // its entries can be deleted
  bool sticky = false;    // only entries of one's own files can be deleted
  bool tagged = false;    // it, or one above it, has a valid CACHEDIR.TAG
  bool own = false;       // its mode can be changed
  uid_t owner = 0;
  std::uint64_t bytes = 0;  // of the directory itself
};
[[nodiscard]] CachePlace placeOf(int directory, bool look_for_tag);

/// Nothing when the entry can be deleted; else whether it is foreign or cannot be deleted.
[[nodiscard]] std::optional<CacheStay> obstacleTo(const CacheSetup& setup, const CachePlace& place,
                                                  const struct statx& status);

/// The pattern states of a directory and of those above it.
class PatternPath {
 public:
  explicit PatternPath(const CachePatterns& patterns);
  /// Continues from another instance.
  PatternPath(const CachePatterns& patterns, const CachePatterns::State* states);
  void enter(const char* name);
  void leave() { states_.resize(states_.size() - patterns_.size()); }
  [[nodiscard]] const CachePatterns::State* here() const {
    return states_.data() + (states_.size() - patterns_.size());
  }

 private:
  const CachePatterns& patterns_;
  std::vector<CachePatterns::State> states_;
};

/// A directory that `include` names, which the walk has just opened.
struct CacheUnitFound {
  int parent;
  int directory;
  const std::string& name;
  const std::string& path;  // relative to the root
  const CachePlace& among;  // the properties of its parent
  bool leftover;            // of an interrupted purge
  const CachePatterns::State* exclude;
};

/// Walks a cache directory, and reports what the rules allow to go; the rest stays, for a reason.
class CacheWalk : public FolderWalk::Visitor {
 public:
  static constexpr std::size_t deepest = 4096;  // levels

  /// Reports nothing newer than `newest`. `open` is null unless open files stay.
  CacheWalk(const CacheSetup& setup, CacheAccount& account, const CacheLocks& locks, OpenFiles* open,
            std::int64_t newest);
  /// False, with the reason in errno, when the root cannot be read.
  bool run();

  [[nodiscard]] bool done() final { return account_.done(); }
  void file(int directory, const char* name, const struct statx& status) final;
  void other(int directory, const char* name) final;
  [[nodiscard]] bool wants(const std::string& name) final;
  [[nodiscard]] bool entered(int parent, int directory, const std::string& name) final;
  void left(int parent, const std::string& name) final;
  void notEntered(const std::string& name, int error) final;
  void failed(int error) final;

 protected:
  // Both threads call these two.
  virtual void found(int directory, const char* name, const struct statx& status) = 0;
  /// Too young: it stays, but counts among the newest.
  virtual void foundYoung(const struct statx& /*status*/) {}
  virtual void foundUnit(const CacheUnitFound& /*unit*/) {}

  void stay(CacheStay reason, std::uint64_t bytes = 0) { account_.stay(reason, bytes, 1); }
  [[nodiscard]] std::string pathOf(const char* name) const;
  [[nodiscard]] const CacheSetup& setup() const { return setup_; }
  [[nodiscard]] CacheAccount& account() const { return account_; }

 private:
  struct Level {
    std::size_t path_bytes;
    CachePlace place;
  };

  [[nodiscard]] bool included(const char* name) const;
  [[nodiscard]] bool isOpen(const struct statx& status);
  [[nodiscard]] bool isLeftover(const std::string& name) const;
  [[nodiscard]] bool walksOn(int parent, int directory, const std::string& name, const CachePlace& place);

  const CacheSetup& setup_;
  CacheAccount& account_;
  const CacheLocks& locks_;
  OpenFiles* const open_;
  const std::int64_t newest_;
  // Changed only between directories, when one thread is at work.
  PatternPath include_;
  PatternPath exclude_;
  std::string path_;  // of the current directory, with a slash at its end; empty for the root
  std::vector<Level> levels_;
};

}  // namespace kelvane::client
