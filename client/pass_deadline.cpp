#include "client/pass_deadline.h"

#include <algorithm>

#include "kelvane/keys.h"

namespace kelvane::client {
namespace {

using std::chrono::seconds;

// The daemon's values; see docs/wire-protocol.md.
constexpr std::uint64_t longest_pass_seconds = 300;
constexpr int pass_seconds_per_urgency = 2;

constexpr int percent_of_pass = 70;  // the rest is for the answer's way, and for others' delays
constexpr seconds question_time(8);
constexpr seconds periodic_time(10);

seconds lengthOfPass(int urgency, const Dictionary& info) {
  const std::uint64_t wanted = info[KELVANE_PURGE_TIMEOUT].unsignedLongLongValue();
  if (wanted != 0) return seconds(std::min(wanted, longest_pass_seconds));
  return seconds(pass_seconds_per_urgency * std::clamp(urgency, 1, 4));
}

}  // namespace

Moment questionAnswerBy() { return present() + question_time; }
Moment periodicAnswerBy() { return present() + periodic_time; }

Moment PassDeadline::answerBy(int urgency, const Dictionary& info) {
  Pass pass{urgency,   info[KELVANE_FREESPACE_BEGIN], info[KELVANE_TOKEN],
            present(), lengthOfPass(urgency, info),   false};
  const std::lock_guard lock(mutex_);
  const bool again =
      last_ && last_->asks_again && isSamePurge(*last_, pass) && pass.begin < last_->begin + last_->length;
  if (!again) last_ = std::move(pass);
  last_->asks_again = false;
  return last_->begin + last_->length * percent_of_pass / 100;
}

bool PassDeadline::isSamePurge(const Pass& a, const Pass& b) {
  return a.urgency == b.urgency && a.length == b.length && a.free_at_begin == b.free_at_begin &&
         a.token == b.token;
}

void PassDeadline::answered(std::uint64_t asked, std::uint64_t gave) {
  const std::lock_guard lock(mutex_);
  if (last_) last_->asks_again = gave >= asked;
}

}  // namespace kelvane::client
