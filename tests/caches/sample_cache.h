#pragma once

// The cache that a definition describes: for each of its roots and patterns files that go, and around them
// what has to stay, made from the definition alone.

#include <sys/types.h>
#include <array>
#include <cstdint>
#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "caches/definition.h"
#include "tests/caches/sample_names.h"

namespace kelvane::caches::tests {

class SampleCache {
 public:
  /// Paths of files or units, whole.
  using Paths = std::set<std::string>;

  SampleCache(const Definition& definition, std::string home, uid_t user);

  /// All of it is too young, and more than the rules always leave.
  void makeYoung();
  void make();
  /// As the definition says it, "~" and wildcards filled in.
  [[nodiscard]] const std::vector<std::string>& roots() const { return roots_; }
  /// What goes at this urgency.
  [[nodiscard]] const Paths& atUrgency(int urgency) const {
    return goes_.at(static_cast<std::size_t>(urgency) - 1);
  }
  /// What stays, and lies where the definition looks.
  [[nodiscard]] const Paths& stays() const { return stays_; }

 private:
  [[nodiscard]] bool isUnits() const { return definition_.kind == Kind::units; }
  [[nodiscard]] bool hasFloor() const {
    return definition_.rules.keep_newest > 0 || definition_.rules.keep_bytes > 0;
  }
  /// How old something must be at an urgency; 0: nothing goes.
  [[nodiscard]] std::time_t threshold(int urgency) const;
  [[nodiscard]] std::string rootFrom(std::string written) const;
  /// Another path for an item; empty when there can be only one.
  [[nodiscard]] std::string sample(const std::string& root, const std::string& pattern, int levels);

  void makeDirectories(const std::string& path) const;
  void makeFile(const std::string& path, std::size_t bytes, std::time_t age) const;
  void makeTag(const std::string& directory) const;
  void makeItem(const std::string& path, std::time_t age);
  void link(const std::string& from, const std::string& to) const;
  void makeRoot(const std::string& root);
  void makeItems(const std::string& root, const std::string& pattern);
  void makeYoungItem(const std::string& root, const std::string& pattern);
  void makeLinked(const std::string& root, const std::string& pattern);
  void makePair(const std::string& root, const std::string& pattern);
  void makePinned(const std::string& root, const std::string& pattern);
  void makeReadOnly(const std::string& root, const std::string& pattern);
  void makeUntagged(const std::string& root, const std::string& pattern);
  void makeExcluded(const std::string& root, const std::string& pattern);
  void makeNewest(const std::string& root, const std::string& pattern, std::time_t age);
  void makeLocks(const std::string& root);
  void makeAround(const std::string& root);
  void keep(const std::string& path) { stays_.insert(path); }

  const Definition& definition_;
  const std::string home_;
  const uid_t user_;
  std::vector<std::string> patterns_;
  std::vector<std::string> roots_;
  SampleNames names_;
  mutable std::size_t files_ = 0;
  bool tag_ = true;
  bool is_single_ = false;  // larger, then, so that there is something to measure
  std::array<Paths, client::urgency_count> goes_;
  Paths stays_;
};

}  // namespace kelvane::caches::tests
