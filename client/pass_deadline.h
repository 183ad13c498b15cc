#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>

#include "client/moment.h"
#include "kelvane/value.h"

namespace kelvane::client {

/// When a question that has just come must be answered: it has ten seconds, and others share them.
[[nodiscard]] Moment questionAnswerBy();
/// The same for periodic maintenance, which has fifteen.
[[nodiscard]] Moment periodicAnswerBy();

/// Until when the purges of a pass are to be answered.
///
/// The daemon asks a service again within a pass once it gave all it was asked for. Such a request has what
/// is left of the pass, so it must be told from the first of another pass. A request is a copy of the purge's
/// working dictionary, in which the free space at the start, the token and the urgency tell the passes of
/// different purges apart, nearly: two purges that found the same free space and have no token look alike.
/// But a service that gave less than it was asked for is not asked again, and a pass is over when its time
/// is.
///
/// One purge runs at a time in the whole daemon, so only the last pass is known. Any thread.
class PassDeadline {
 public:
  /// To be called when the request comes, not when its turn has come.
  [[nodiscard]] Moment answerBy(int urgency, const Dictionary& info);
  void answered(std::uint64_t asked, std::uint64_t gave);

 private:
  struct Pass {
    int urgency = 0;
    Value free_at_begin;
    Value token;
    Moment begin;
    std::chrono::nanoseconds length{};
    bool asks_again = false;
  };
  [[nodiscard]] static bool isSamePurge(const Pass& a, const Pass& b);

  std::mutex mutex_;
  std::optional<Pass> last_;  // guarded by mutex_
};

}  // namespace kelvane::client
