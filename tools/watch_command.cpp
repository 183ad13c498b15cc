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
#include <csignal>
#include <ctime>
#include <string_view>

#include "platform/foundation/whole_file.h"
#include "tools/commands.h"
#include "tools/daemon_client.h"
#include "tools/json.h"
#include "tools/taken_signals.h"
#include "tools/watch.h"

namespace kelvane::tools {
namespace {

using Clock = std::chrono::steady_clock;

// Keys are not looked at meanwhile.
constexpr std::chrono::seconds patience(1);

/// The terminal as a screen to draw on: keys come at once and are not shown, lines are not broken, and what
/// was on it before comes back at the end. The cursor is hidden.
class DrawnOn {
 public:
  explicit DrawnOn(bool is_one) : is_one_(is_one) { begin(); }
  ~DrawnOn() { end(); }
  DrawnOn(const DrawnOn&) = delete;
  DrawnOn& operator=(const DrawnOn&) = delete;

  void begin() {
    if (!is_one_) return;
    has_keys_ = ::tcgetattr(STDIN_FILENO, &before_) == 0;
    if (has_keys_) {
      termios changed = before_;
      changed.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
      ::tcsetattr(STDIN_FILENO, TCSANOW, &changed);
    }
    static_cast<void>(write("\033[?1049h\033[?25l\033[?7l"));
  }
  void end() {
    if (!is_one_) return;
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

  const bool is_one_;
  bool has_keys_ = false;
  termios before_{};
};

class Watch {
 public:
  Watch(const Options& options, const Screen& screen)
      : options_(options),
        screen_(screen),
        live_(screen.live && !options.json),
        signals_(live_ ? takenSignals({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH, SIGTSTP})
                       : takenSignals({SIGINT, SIGTERM})),
        drawn_on_(live_) {}

  /// Returns the exit code.
  int run() {
    for (std::uint64_t looks = 1;; ++looks) {
      const auto began = Clock::now();
      look();
      show();
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
    now.status = gatherStatus(options_, patience);
    if (!now.status.unreachable) now.purges = purgesNow();
    if (last_) noteChanges(now, *last_);
    last_ = std::move(now);
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
      if (waiting[0].revents != 0) takeSignal();
      if (waiting[1].revents != 0) takeKeys();
    }
  }

  void takeSignal() {
    const int signal = nextSignal(signals_);
    if (signal == SIGTSTP) {
      drawn_on_.end();
      ::raise(SIGSTOP);
      drawn_on_.begin();
    }
    if (signal == SIGTSTP || signal == SIGWINCH) {
      screen_ = screenOf(STDOUT_FILENO);
      show();
    } else if (signal != 0) {
      end_ = exit_cancelled;
    }
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
  std::optional<ExitCode> end_;  // why to end, once it is so
};

}  // namespace

int watchCommand(const Options& options, const Screen& screen) { return Watch(options, screen).run(); }

}  // namespace kelvane::tools
