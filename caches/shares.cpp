#include "caches/shares.h"

#include <algorithm>
#include <limits>

namespace kelvane::caches {
namespace {

std::uint64_t added(std::uint64_t a, std::uint64_t b) {
  return a > std::numeric_limits<std::uint64_t>::max() - b ? std::numeric_limits<std::uint64_t>::max()
                                                           : a + b;
}

std::uint64_t part(std::uint64_t whole, std::uint64_t of, std::uint64_t all) {
  if (all == 0 || of >= all) return whole;
  const long double exact =
      static_cast<long double>(whole) * static_cast<long double>(of) / static_cast<long double>(all);
  return std::min(whole, static_cast<std::uint64_t>(exact));
}

/// The sum, without what the rules of each directory keep at this urgency.
client::CacheSurvey sumAt(const std::vector<const client::CacheSurvey*>& surveys, int urgency) {
  client::CacheSurvey total;
  for (const client::CacheSurvey* const survey : surveys) {
    client::CacheSurvey one = *survey;
    std::uint64_t left = one.at_urgency[static_cast<std::size_t>(urgency) - 1].bytes;
    for (std::size_t i = one.ages.buckets.size(); i-- > 0;) {
      std::uint64_t& bytes = one.ages.buckets[i].bytes;
      bytes = std::min(bytes, left);
      left -= bytes;
    }
    if (survey == surveys.front()) {
      total = one;
    } else {
      total += one;
    }
  }
  return total;
}

}  // namespace

Shares shareOut(const std::vector<const client::CacheSurvey*>& surveys, int urgency, std::uint64_t amount) {
  Shares shares;
  if (surveys.empty() || urgency < 1 || urgency > client::most_urgent) {
    shares.amounts.resize(surveys.size());
    return shares;
  }
  shares.cut = sumAt(surveys, urgency).cut(urgency, amount);

  std::vector<std::uint64_t> last;  // of the bucket that ends at the cut
  std::uint64_t whole = 0;
  std::uint64_t last_whole = 0;
  for (const client::CacheSurvey* const survey : surveys) {
    const std::uint64_t to_the_cut = survey->bytesUpTo(urgency, shares.cut);
    const std::uint64_t before = std::min(to_the_cut, survey->bytesUpTo(urgency, {shares.cut.newest - 1}));
    shares.amounts.push_back(before);
    last.push_back(to_the_cut - before);
    whole = added(whole, before);
    last_whole = added(last_whole, last.back());
  }
  std::uint64_t rest = amount - std::min(amount, whole);
  for (std::size_t i = 0; i < surveys.size(); ++i) {
    const std::uint64_t extra = std::min(rest, part(last[i], std::min(rest, last_whole), last_whole));
    shares.amounts[i] = added(shares.amounts[i], extra);
    rest -= extra;
    last_whole -= last[i];
  }
  // The amount exceeds the surveys. Caches may have grown since, so the rest is divided too.
  for (std::uint64_t& one : shares.amounts) one = added(one, rest / surveys.size());
  return shares;
}

}  // namespace kelvane::caches
