#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "client/cache_setup.h"

namespace kelvane::client {

/// Everything at least as new stays, whatever its age.
struct CacheFloor {
  CacheAge from{INT64_MAX, UINT32_MAX, UINT64_MAX};
  [[nodiscard]] bool keeps(const CacheAge& age) const { return !(age < from); }
};

/// Finds the floor: the newest by number, exactly up to `most_exact`, and by bytes, to a bucket of ages.
class NewestKept {
 public:
  static constexpr std::size_t most_exact = 4096;

  explicit NewestKept(const CacheRules& rules) : rules_(rules) {}
  [[nodiscard]] bool isAsked() const { return rules_.keep_newest > 0 || rules_.keep_bytes > 0; }
  /// One file or unit, which counts as `items`.
  void add(const CacheAge& age, std::int64_t now, std::uint64_t bytes, std::uint64_t items);
  /// Subtracts what stays from the survey's figures.
  CacheFloor apply(CacheSurvey& survey) const;

 private:
  struct Kept {
    CacheAge age;
    std::uint64_t bytes;
    std::uint64_t items;
    bool operator<(const Kept& other) const { return other.age < age; }  // the oldest is first in the heap
  };
  struct Bucket {
    std::uint64_t bytes = 0;
    std::uint64_t things = 0;
  };

  [[nodiscard]] bool isExact() const { return rules_.keep_newest <= most_exact; }
  /// How many of the youngest buckets stay.
  [[nodiscard]] std::size_t bucketsKept() const;
  void takeOut(CacheSurvey& survey, const Kept& kept) const;
  static void takeOut(CacheSurvey& survey, std::size_t buckets, std::int64_t from);

  const CacheRules& rules_;
  std::vector<Kept> newest_;
  std::vector<Bucket> buckets_;
};

}  // namespace kelvane::client
