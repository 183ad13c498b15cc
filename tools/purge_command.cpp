// Carrying out a purge: asking, showing how it goes, cancelling it.

#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <array>
#include <csignal>
#include <mutex>

#include "platform/foundation/file_descriptor.h"
#include "support/token.h"
#include "support/volumes.h"
#include "tools/amount.h"
#include "tools/commands.h"
#include "tools/daemon_client.h"
#include "tools/json.h"
#include "tools/purge.h"
#include "tools/taken_signals.h"
#include "tools/volume_of.h"

namespace kelvane::tools {
namespace {

using Clock = std::chrono::steady_clock;
using Answer = client::Result<Dictionary>;

constexpr std::chrono::milliseconds redraw(100);
// How long a cancelled purge may take to end. The daemon may be unable to end it early, and goes on then.
constexpr std::chrono::seconds grace(3);
// A purge that waits for its turn cannot be cancelled yet.
constexpr std::chrono::milliseconds cancel_again(500);

/// The answer, once it is there. Set on a thread of the client.
class AwaitedAnswer {
 public:
  void set(Answer answer) {
    const std::lock_guard lock(mutex_);
    answer_.emplace(std::move(answer));
    ::eventfd_write(event_.get(), 1);
  }
  [[nodiscard]] std::optional<Answer> get() {
    const std::lock_guard lock(mutex_);
    return answer_;
  }
  [[nodiscard]] int descriptor() const { return event_.get(); }

 private:
  const FileDescriptor event_{::eventfd(0, EFD_CLOEXEC)};
  std::mutex mutex_;
  std::optional<Answer> answer_;  // guarded by mutex_
};

/// One purge under way; used by the main thread only.
class PurgeRun {
 public:
  PurgeRun(const Options& options, const Screen& screen, std::string volume)
      : screen_(screen),
        volume_(std::move(volume)),
        asked_(options.amount),
        shows_progress_(screen.live && !options.json),
        daemon_({socketOf(options)}) {
    Dictionary request = client::purgeRequest(volume_, options.amount, options.urgency, options.pass_seconds);
    request.set(KELVANE_TOKEN, token_);
    daemon_.purge(request, [this](Answer answer) { awaited_.set(std::move(answer)); });
  }

  /// Returns when the daemon has answered, or the user would not wait for that.
  Answer wait() {
    for (;;) {
      if (auto answer = awaited_.get()) return eraseProgress(), std::move(*answer);
      std::array<pollfd, 2> waiting{pollfd{awaited_.descriptor(), POLLIN, 0},
                                    pollfd{signals_.get(), POLLIN, 0}};
      ::poll(waiting.data(), waiting.size(), timeout());
      if (waiting[1].revents != 0) takeSignal();
      if (cancelled()) cancel();
      if (shows_progress_ && !awaited_.get()) drawProgress();
    }
  }

  [[nodiscard]] bool cancelled() const { return signals_taken_ > 0; }
  /// "gained 8.0 MiB", by the volume's own free space.
  [[nodiscard]] std::string gainText() const {
    const std::int64_t bytes = gained();
    return bytes >= 0 ? "gained " + inUnitsSigned(bytes) : "lost " + inUnitsSigned(-bytes);
  }

 private:
  [[nodiscard]] std::int64_t gained() const {
    return static_cast<std::int64_t>(volumeFreespace(volume_)) - static_cast<std::int64_t>(free_before_);
  }

  [[nodiscard]] int timeout() const {
    if (shows_progress_) return static_cast<int>(redraw.count());
    return cancelled() ? static_cast<int>(cancel_again.count()) : -1;
  }

  void takeSignal() {
    if (nextSignal(signals_) == 0) return;
    leave_at_ = Clock::now() + (++signals_taken_ == 1 ? grace : std::chrono::seconds(0));
  }

  void cancel() {
    const auto now = Clock::now();
    if (now >= leave_at_) {
      eraseProgress();
      throw Problem(exit_cancelled,
                    fmt::format("the daemon was asked to cancel the purge and has not ended it yet; "
                                "the volume has {} since it began",
                                gainText()));
    }
    if (now < next_cancel_) return;
    next_cancel_ = now + cancel_again;
    daemon_.cancelPurge(token_, [](const auto&) {});
  }

  void drawProgress() {
    const std::chrono::duration<double> elapsed = Clock::now() - began_;
    print("\r\033[K" + (cancelled() ? cut(screen_, "Cancelling ...", screen_.width - 1)
                                    : progressLine(volume_, gained(), asked_, elapsed.count(), screen_)));
    drawn_ = true;
  }
  void eraseProgress() {
    if (drawn_) print("\r\033[K");
    drawn_ = false;
  }

  const FileDescriptor signals_ = takenSignals({SIGINT, SIGTERM});
  const Screen screen_;
  const std::string volume_;
  const std::uint64_t asked_;
  const bool shows_progress_;
  const Value token_ = createKelvaneToken();
  const std::uint64_t free_before_ = volumeFreespace(volume_);
  const Clock::time_point began_ = Clock::now();
  int signals_taken_ = 0;
  bool drawn_ = false;
  Clock::time_point next_cancel_;
  Clock::time_point leave_at_;  // once cancelled
  AwaitedAnswer awaited_;
  client::Client daemon_;  // destroyed first: it calls what is outstanding
};

[[noreturn]] void fail(const PurgeRun& run, const client::Error& error, const Options& options) {
  const Problem problem = problemOf(error, socketOf(options));
  if (error.kind != client::Failure::connectionLost) throw problem;
  throw Problem(problem.code(),
                fmt::format("{}; the volume has {} since the purge began", problem.what(), run.gainText()));
}

}  // namespace

int purgeCommand(const Options& options, const Screen& screen) {
  const std::string volume = volumeOf(options.volume);
  PurgeRun run(options, screen, volume);
  const Answer answer = run.wait();
  if (!answer) fail(run, answer.error(), options);
  const Purged purged{volume, options.amount, client::readPurgeReport(*answer), run.cancelled()};
  print(options.json ? jsonText(purgeValue(purged)) : purgeScreen(purged, screen));
  if (purged.report.freed >= purged.asked) return exit_met;
  return purged.cancelled ? exit_cancelled : exit_short;
}

}  // namespace kelvane::tools
