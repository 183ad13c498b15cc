// Carrying out `watch`: looking again and again, on a terminal of its own look until the user has seen
// enough.

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <ctime>
#include <string_view>
#include <utility>

#include "platform/foundation/whole_file.h"
#include "tools/commands.h"
#include "tools/daemon_client.h"
#include "tools/json.h"
#include "tools/taken_signals.h"
#include "tools/watch.h"

namespace kelvane::tools {
namespace {

using Clock = std::chrono::steady_clock;

// A daemon that is silent is not asked at each look: keys are not looked at while it is waited for.
constexpr std::chrono::seconds silence(10);

/// How long a look waits for the daemon.
std::chrono::seconds patienceOf(const Options& options) {
  return std::chrono::seconds(std::clamp(static_cast<int>(std::ceil(options.interval_seconds)), 1, 5));
}

/// In the background of its terminal, which is another's to draw on meanwhile.
bool inBackground() {
  const pid_t foreground = ::tcgetpgrp(STDOUT_FILENO);
  return foreground > 0 && foreground != ::getpgrp();
}

/// Stops the program as Ctrl-Z does. In a process group that nobody could resume the signal does nothing.
void stopHere() {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTSTP);
  ::raise(SIGTSTP);
  ::pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);  // here it stops, once, however often Ctrl-Z was pressed
  ::pthread_sigmask(SIG_BLOCK, &stop, nullptr);
}

/// The signals that the view on a terminal takes. SIGTTOU is none of them, but it must not stop the program
/// while it gives the terminal back.
FileDescriptor signalsOfAView() {
  sigset_t output;
  sigemptyset(&output);
  sigaddset(&output, SIGTTOU);
  ::pthread_sigmask(SIG_BLOCK, &output, nullptr);
  return takenSignals({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH, SIGTSTP, SIGCONT});
}

/// The terminal as a screen to draw on: keys come at once and are not shown, lines are not broken, and what
/// was on it before comes back at the end. The cursor is hidden.
class DrawnOn {
 public:
  DrawnOn() = default;
  ~DrawnOn() { end(); }
  DrawnOn(const DrawnOn&) = delete;
  DrawnOn& operator=(const DrawnOn&) = delete;

  void begin() {
    if (std::exchange(drawn_, true)) return;
    has_keys_ = ::tcgetattr(STDIN_FILENO, &before_) == 0;
    if (has_keys_) {
      termios changed = before_;
      changed.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
      changed.c_cc[VMIN] = 1;
      changed.c_cc[VTIME] = 0;
      ::tcsetattr(STDIN_FILENO, TCSANOW, &changed);
    }
    static_cast<void>(write("\033[?1049h\033[?25l\033[?7l"));
  }
  void end() {
    if (!std::exchange(drawn_, false)) return;
    static_cast<void>(write("\033[?7h\033[?25h\033[?1049l"));
    if (has_keys_) ::tcsetattr(STDIN_FILENO, TCSANOW, &before_);
  }

  /// False when the terminal is gone.
  [[nodiscard]] static bool draw(const std::string& text) {
    std::string frame = "\033[H";
    for (std::string_view rest = text; !rest.empty();) {
      const std::size_t end = std::min(rest.find('\n'), rest.size());
      frame += (rest.size() < text.size() ? "\n\033[K" : "\033[K") + std::string(rest.substr(0, end));
      rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return write(frame + "\033[J");
  }

  /// What to wait for keys on; -1 where none can come.
  [[nodiscard]] int keys() const { return has_keys_ ? STDIN_FILENO : -1; }

 private:
  static bool write(std::string_view text) {
    while (!text.empty()) {
      const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
      if (written < 0 && errno != EINTR) return false;
      text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
    }
    return true;
  }

  bool drawn_ = false;
  bool has_keys_ = false;
  termios before_{};
};

class Watch {
 public:
  Watch(const Options& options, const Screen& screen)
      : options_(options),
        screen_(screen),
        live_(screen.live && !options.json),
        signals_(live_ ? signalsOfAView() : FileDescriptor()) {}

  /// Returns the exit code.
  int run() {
    for (std::uint64_t looks = 1;; ++looks) {
      const auto began = Clock::now();
      look();
      show();
      if (end_) return *end_;
      if (looks == options_.count) return exit_met;
      waitUntil(began + std::chrono::duration_cast<Clock::duration>(
                            std::chrono::duration<double>(options_.interval_seconds)));
      if (end_) return *end_;
    }
  }

 private:
  void look() {
    Look now;
    now.time = fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::time(nullptr)));
    now.status = statusNow();
    if (!now.status.unreachable) now.purges = purgesNow();
    if (last_) noteChanges(now, *last_);
    last_ = std::move(now);
  }

  Status statusNow() {
    if (last_ && Clock::now() < silent_until_) {
      Status status = last_->status;
      status.volumes = lookAtVolumes();
      return status;
    }
    const auto patience = patienceOf(options_);
    const auto began = Clock::now();
    Status status = gatherStatus(options_, patience, last_ ? &last_->status : nullptr);
    const auto now = Clock::now();
    if (status.unreachable && now - began >= patience) silent_until_ = now + silence;
    return status;
  }

  /// None, where the daemon has not counted anything yet.
  [[nodiscard]] std::optional<Purges> purgesNow() const {
    const std::string path = metricsFileOf(options_);
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 && errno == ENOENT) return Purges();
    const WholeFile file = readWholeFile(path, most_metrics_bytes);
    if (file.error) return std::nullopt;
    return purgesIn(readStats(std::string(file.bytes.begin(), file.bytes.end())));
  }

  void show() {
    if (options_.json) return print(jsonLine(watchValue(*last_)));
    if (!live_) return print(watchScreen(*last_, "", screen_) + "\n");
    if (inBackground()) suspend();
    if (end_) return;
    drawn_on_.begin();
    const std::string hint = fmt::format("every {:g} s; q quits", options_.interval_seconds);
    if (!DrawnOn::draw(firstLines(watchScreen(*last_, hint, screen_), screen_.height))) end_ = exit_cancelled;
  }

  /// Returns earlier when it is to end.
  void waitUntil(Clock::time_point time) {
    while (!end_) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now());
      std::array<pollfd, 2> waiting{pollfd{signals_.get(), POLLIN, 0}, pollfd{drawn_on_.keys(), POLLIN, 0}};
      const int ready =
          ::poll(waiting.data(), waiting.size(), static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
      if (ready == 0) return;
      if (waiting[0].revents != 0) {
        takeSignal(nextSignal(signals_));
      } else if (waiting[1].revents != 0) {
        takeKeys();
      }
    }
  }

  void takeSignal(int signal) {
    if (signal == SIGTSTP) suspend();
    if (signal == SIGTSTP || signal == SIGWINCH || signal == SIGCONT) {
      screen_ = screenOf(STDOUT_FILENO);
      if (!end_) show();
    } else if (signal != 0) {
      end_ = exit_cancelled;
    }
  }

  /// Gives the terminal back and stops until it is in the foreground. Whoever ends a program that is stopped
  /// sends it the signal and resumes it: what came meanwhile counts first.
  void suspend() {
    drawn_on_.end();
    bool resumed = true;
    do {
      stopHere();
      resumed = false;
      while (const int signal = nextSignal(signals_)) {
        if (signal == SIGCONT) resumed = true;
        if (signal == SIGINT || signal == SIGTERM || signal == SIGHUP || signal == SIGQUIT)
          end_ = exit_cancelled;
      }
    } while (!end_ && resumed && inBackground());
    if (inBackground()) end_ = exit_cancelled;  // and nobody could ever bring it to the foreground
  }

  void takeKeys() {
    std::array<char, 64> keys{};
    const ssize_t count = ::read(STDIN_FILENO, keys.data(), keys.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (count <= 0) end_ = exit_cancelled;  // the terminal was closed
    if (std::any_of(keys.begin(), keys.begin() + std::max<ssize_t>(count, 0),
                    [](char c) { return c == 'q' || c == 'Q'; }))
      end_ = exit_met;
  }

  const Options& options_;
  Screen screen_;
  const bool live_;
  const FileDescriptor signals_;
  DrawnOn drawn_on_;
  std::optional<Look> last_;
  Clock::time_point silent_until_;  // not to be asked before that
  std::optional<ExitCode> end_;     // why to end, once it is so
};

}  // namespace

int watchCommand(const Options& options, const Screen& screen) { return Watch(options, screen).run(); }

}  // namespace kelvane::tools
