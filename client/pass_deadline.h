#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>

#include "client/moment.h"
#include "kelvane/value.h"

namespace kelvane::client {

/// The deadline of a question that has just arrived: it has ten seconds, shared with other services.
[[nodiscard]] Moment questionAnswerBy();
/// The same for periodic maintenance, which has fifteen.
[[nodiscard]] Moment periodicAnswerBy();

/// Computes the deadlines of the purges of a pass.
///
/// The daemon asks a service again within a pass if it gave all it was asked for. Such a request has only the
/// rest of the pass, so it must be distinguished from the first request of another pass. A request is a copy
/// of the purge's working dictionary. Its free space at the start, its token and its urgency identify a pass,
/// except that two purges with the same free space and without a token look alike. For these it helps that a
/// service that gave less than it was asked for is not asked again, and that a pass ends with its time.
///
/// One purge runs at a time in the whole daemon, so only the last pass is known. Any thread.
class PassDeadline {
 public:
  /// To be called when the request arrives, not when it is run.
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
