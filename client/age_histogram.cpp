#include "client/age_histogram.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace kelvane::client {
namespace {

constexpr std::size_t buckets = AgeHistogram::bucket_count;
constexpr std::size_t to_each_doubling = 16;
constexpr std::int64_t nothing = std::numeric_limits<std::int64_t>::min();

bool isUrgency(int urgency) { return urgency >= 1 && urgency <= most_urgent; }

const std::array<std::int64_t, buckets>& edges() {
  static const auto made = [] {
    std::array<std::int64_t, buckets> all{};
    for (std::size_t i = 1; i < buckets; ++i)
      all[i] = std::llround(std::ceil(std::exp2(static_cast<double>(i) / to_each_doubling)));
    return all;
  }();
  return made;
}

void add(CacheFigure& to, const CacheFigure& other) {
  to.bytes += other.bytes;
  to.items += other.items;
}

}  // namespace

std::size_t ageBucket(std::int64_t age) {
  const auto& all = edges();
  return static_cast<std::size_t>(std::upper_bound(all.begin() + 1, all.end(), age) - all.begin()) - 1;
}

std::int64_t youngestOf(std::size_t bucket) { return edges()[bucket]; }

AgeCut CacheSurvey::cut(int urgency, std::uint64_t amount) const {
  if (!isUrgency(urgency)) return {nothing};
  const std::int64_t newest = newest_at_urgency[static_cast<std::size_t>(urgency) - 1];
  std::uint64_t bytes = 0;
  for (std::size_t i = buckets; i-- > 0;) {
    bytes += ages.buckets[i].bytes;
    if (bytes > 0 && bytes >= amount) return {std::min(newest, taken_at - youngestOf(i))};
  }
  return {newest};
}

std::uint64_t CacheSurvey::bytesUpTo(int urgency, AgeCut cut) const {
  if (!isUrgency(urgency)) return 0;
  const auto index = static_cast<std::size_t>(urgency) - 1;
  if (cut.newest >= newest_at_urgency[index]) return at_urgency[index].bytes;
  std::uint64_t bytes = 0;
  for (std::size_t i = 0; i < buckets; ++i)
    if (taken_at - youngestOf(i) <= cut.newest) bytes += ages.buckets[i].bytes;
  return std::min(bytes, at_urgency[index].bytes);
}

CacheSurvey& CacheSurvey::operator+=(const CacheSurvey& other) {
  for (std::size_t i = 0; i < urgency_count; ++i) {
    add(at_urgency[i], other.at_urgency[i]);
    newest_at_urgency[i] = std::max(newest_at_urgency[i], other.newest_at_urgency[i]);
  }
  for (std::size_t i = 0; i < buckets; ++i) {
    ages.buckets[i].bytes += other.ages.buckets[i].bytes;
    ages.buckets[i].items += other.ages.buckets[i].items;
  }
  for (std::size_t i = 0; i < cache_stay_count; ++i) add(stays[i], other.stays[i]);
  complete = complete && other.complete;
  if (error == 0) error = other.error;
  return *this;
}

}  // namespace kelvane::client
