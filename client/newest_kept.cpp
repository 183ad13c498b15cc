#include "client/newest_kept.h"

#include <algorithm>

#include "client/age_histogram.h"

namespace kelvane::client {
namespace {

constexpr auto floor_index = static_cast<std::size_t>(CacheStay::floor);

}  // namespace

void NewestKept::add(const CacheAge& age, std::int64_t now, std::uint64_t bytes, std::uint64_t items) {
  if (!isAsked()) return;
  buckets_.resize(AgeHistogram::bucket_count);
  Bucket& bucket = buckets_[ageBucket(now - age.seconds)];
  bucket.bytes += bytes;
  ++bucket.things;
  if (!isExact() || rules_.keep_newest == 0) return;
  if (newest_.size() == rules_.keep_newest) {
    if (age < newest_.front().age) return;
    std::pop_heap(newest_.begin(), newest_.end());
    newest_.pop_back();
  }
  newest_.push_back({age, bytes, items});
  std::push_heap(newest_.begin(), newest_.end());
}

std::size_t NewestKept::bucketsKept() const {
  const std::uint64_t things_wanted = isExact() ? 0 : rules_.keep_newest;
  std::uint64_t bytes = 0;
  std::uint64_t things = 0;
  std::size_t kept = 0;
  while (kept < buckets_.size() && (bytes < rules_.keep_bytes || things < things_wanted)) {
    bytes += buckets_[kept].bytes;
    things += buckets_[kept++].things;
  }
  return kept;
}

CacheFloor NewestKept::apply(CacheSurvey& survey) const {
  CacheFloor by_number;
  CacheFloor by_bucket;
  if (!newest_.empty()) by_number.from = newest_.front().age;
  const std::size_t kept = bucketsKept();
  if (kept > 0) by_bucket.from = {no_time, 0, 0};
  if (kept > 0 && kept < AgeHistogram::bucket_count)
    by_bucket.from.seconds = survey.taken_at - youngestOf(kept) + 1;
  if (!(by_number.from < by_bucket.from)) {
    takeOut(survey, kept, by_bucket.from.seconds);
    return by_bucket;
  }
  for (const Kept& each : newest_) takeOut(survey, each);
  return by_number;
}

void NewestKept::takeOut(CacheSurvey& survey, const Kept& kept) const {
  if (kept.age.seconds > survey.newest_at_urgency.back()) return;
  for (std::size_t i = 0; i < urgency_count; ++i) {
    if (kept.age.seconds > survey.newest_at_urgency[i]) continue;
    survey.at_urgency[i].bytes -= kept.bytes;
    survey.at_urgency[i].items -= kept.items;
  }
  auto& bucket = survey.ages.buckets[ageBucket(survey.taken_at - kept.age.seconds)];
  bucket.bytes -= kept.bytes;
  bucket.items -= kept.items;
  survey.stays[floor_index].bytes += kept.bytes;
  survey.stays[floor_index].items += kept.items;
}

/// The youngest buckets: everything at least as new as `from`.
void NewestKept::takeOut(CacheSurvey& survey, std::size_t buckets, std::int64_t from) {
  CacheFigure left;
  for (std::size_t i = 0; i < AgeHistogram::bucket_count; ++i) {
    auto& bucket = survey.ages.buckets[i];
    CacheFigure& to = i < buckets ? survey.stays[floor_index] : left;
    to.bytes += bucket.bytes;
    to.items += bucket.items;
    if (i < buckets) bucket = {};
  }
  for (std::size_t i = 0; i < urgency_count; ++i)
    if (from <= survey.newest_at_urgency[i]) survey.at_urgency[i] = left;
}

}  // namespace kelvane::client
