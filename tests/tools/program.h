#pragma once

// The real program, run by tests: to its end, or on a terminal of its own.

#include <gmock/gmock.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <array>
#include <chrono>
#include <csignal>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "platform/foundation/file_descriptor.h"
#include "tests/system/daemon.h"
#include "tests/system/machine.h"
#include "tests/system/process.h"

namespace kelvane::tests {

/// Without the screen's width and colours of whoever runs the tests.
inline std::vector<std::string> environment() {
  return {"COLUMNS=80", "NO_COLOR=", "LC_ALL=C.UTF-8", "TERM=xterm"};
}

inline Finished ctl(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), built("kelvanectl"));
  return run(std::move(arguments), environment());
}
inline Finished ctl(const Daemon& daemon, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"--daemon", daemon.socket()});
  return ctl(std::move(arguments));
}

/// Waits until nothing is under way in the daemon, which may still be busy with its start or a check-in.
inline bool becomesIdle(const Daemon& daemon) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < deadline) {
    if (ctl(daemon, {"status"}).output.find(", idle\n") != std::string::npos) return true;
  }
  return false;
}

/// The program on a terminal of its own.
class OnTerminal {
 public:
  OnTerminal(const Daemon& daemon, const std::vector<std::string>& arguments, unsigned width = 80,
             const char* no_color = "")
      : OnTerminal(daemon.socket(), arguments, width, no_color) {}
  OnTerminal(const std::string& socket, std::vector<std::string> arguments, unsigned width = 80,
             const char* no_color = "") {
    arguments.insert(arguments.begin(), {built("kelvanectl"), "--daemon", socket});
    start(std::move(arguments), width, no_color);
  }
  /// Run by a shell with job control, as `"$@"` of that script.
  OnTerminal(const Daemon& daemon, std::vector<std::string> arguments, const std::string& script) {
    arguments.insert(arguments.begin(), {"/bin/bash", "-c", "set -m; " + script, "shell", built("kelvanectl"),
                                         "--daemon", daemon.socket()});
    start(std::move(arguments), 80, "1");
  }
  ~OnTerminal() {
    if (id_ > 0) ::kill(id_, SIGKILL);
    static_cast<void>(finish());
  }
  OnTerminal(const OnTerminal&) = delete;
  OnTerminal& operator=(const OnTerminal&) = delete;

  /// Reads until what it has printed is as wanted; false when it ended, or a minute was over, before that.
  bool printed(const std::function<bool(const std::string&)>& is_wanted) {
    const auto deadline = Clock::now() + patience;
    while (!is_wanted(printed_)) {
      if (!readMore(deadline)) return false;
    }
    return true;
  }
  /// Reads until it has printed the text.
  bool printed(const std::string& text) {
    return printed([&](const std::string& all) { return all.find(text) != std::string::npos; });
  }
  /// Forgets what it has printed, and reads until it has printed the text again.
  bool printedAnew(const std::string& text) {
    printed_.clear();
    return printed(text);
  }
  void resize(unsigned width, unsigned height) const {
    const winsize size{static_cast<unsigned short>(height), static_cast<unsigned short>(width), 0, 0};
    EXPECT_EQ(::ioctl(terminal_.get(), TIOCSWINSZ, &size), 0);
  }
  [[nodiscard]] termios mode() const {
    termios mode{};
    EXPECT_EQ(::tcgetattr(terminal_.get(), &mode), 0);
    return mode;
  }
  /// Closes the terminal; the exit code.
  int hangUp() {
    terminal_ = FileDescriptor();
    return ended();
  }
  [[nodiscard]] pid_t id() const { return id_; }
  void type(const std::string& keys) const {
    EXPECT_EQ(::write(terminal_.get(), keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  /// Reads to its end, for a minute at most; its exit code.
  int finish() {
    const auto deadline = Clock::now() + patience;
    while (readMore(deadline)) {
    }
    if (Clock::now() >= deadline) ::kill(id_, SIGKILL);
    return ended();
  }
  [[nodiscard]] const std::string& all() const { return printed_; }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds patience{60};

  void start(std::vector<std::string> arguments, unsigned width, const char* no_color) {
    std::vector<std::string> variables = variablesWithout({"COLUMNS", "NO_COLOR", "TERM", "LC_ALL"});
    variables.insert(variables.end(), {std::string("NO_COLOR=") + no_color, "TERM=xterm", "LC_ALL=C.UTF-8"});
    // All is allocated before the fork: another thread may hold what a child would wait for.
    const std::vector<char*> words = pointersTo(arguments);
    const std::vector<char*> environment = pointersTo(variables);
    const winsize size{200, static_cast<unsigned short>(width), 0, 0};
    int master = -1;
    id_ = ::forkpty(&master, nullptr, nullptr, &size);
    if (id_ == 0) {
      ::execve(words[0], words.data(), environment.data());
      ::_exit(127);
    }
    terminal_ = FileDescriptor(master);
  }
  static std::vector<std::string> variablesWithout(const std::set<std::string>& names) {
    std::vector<std::string> variables;
    for (char** variable = ::environ; *variable != nullptr; ++variable) {
      const std::string text = *variable;
      if (names.count(text.substr(0, text.find('='))) == 0) variables.push_back(text);
    }
    return variables;
  }
  static std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
  }
  int ended() {
    if (id_ > 0) ::waitpid(id_, &status_, 0);
    id_ = -1;
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
  }
  bool readMore(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (!terminal_ || left <= 0) return false;
    pollfd waiting{terminal_.get(), POLLIN, 0};
    std::array<char, 4096> buffer{};
    if (::poll(&waiting, 1, static_cast<int>(left)) != 1) return false;
    const ssize_t length = ::read(terminal_.get(), buffer.data(), buffer.size());
    if (length <= 0) return false;  // EIO when the program has ended
    printed_.append(buffer.data(), static_cast<std::size_t>(length));
    return true;
  }

  pid_t id_ = -1;
  int status_ = 0;
  FileDescriptor terminal_;
  std::string printed_;
};

inline void expectMatchesSchema(const std::string& json) {
  const Folder folder;
  writeFile(folder.path() + "/output.json", json);
  const char* const check =
      "import json, sys, jsonschema\n"
      "schema, output = (json.load(open(name)) for name in sys.argv[1:])\n"
      "jsonschema.Draft202012Validator.check_schema(schema)\n"
      "jsonschema.validate(output, schema)";
  const Finished checked =
      run({"python3", "-c", check, std::string(KELVANE_SOURCE_FOLDER) + "/docs/kelvanectl.schema.json",
           folder.path() + "/output.json"});
  EXPECT_EQ(checked.status, 0) << checked.output << json;
}

}  // namespace kelvane::tests
