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
#include <csignal>
#include <cstdlib>
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

/// The program on a terminal of its own.
class OnTerminal {
 public:
  OnTerminal(const Daemon& daemon, const std::vector<std::string>& arguments, unsigned width = 80,
             const char* no_color = "")
      : OnTerminal(daemon.socket(), arguments, width, no_color) {}
  OnTerminal(const std::string& socket, std::vector<std::string> arguments, unsigned width = 80,
             const char* no_color = "") {
    arguments.insert(arguments.begin(), {built("kelvanectl"), "--daemon", socket});
    winsize size{24, static_cast<unsigned short>(width), 0, 0};
    int master = -1;
    id_ = ::forkpty(&master, nullptr, nullptr, &size);
    if (id_ == 0) {
      std::vector<char*> words;
      for (std::string& argument : arguments) words.push_back(argument.data());
      words.push_back(nullptr);
      ::unsetenv("COLUMNS");
      ::setenv("NO_COLOR", no_color, 1);
      ::setenv("TERM", "xterm", 1);
      ::setenv("LC_ALL", "C.UTF-8", 1);
      ::execv(words[0], words.data());
      ::_exit(127);
    }
    terminal_ = FileDescriptor(master);
  }
  ~OnTerminal() {
    if (id_ > 0) ::kill(id_, SIGKILL);
    static_cast<void>(finish());
  }
  OnTerminal(const OnTerminal&) = delete;
  OnTerminal& operator=(const OnTerminal&) = delete;

  /// Reads until it has printed the text; false when it ended, or said nothing for half a minute, before
  /// that.
  bool printed(const std::string& text) {
    while (printed_.find(text) == std::string::npos) {
      if (!readMore()) return false;
    }
    return true;
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
  /// Reads to its end; its exit code.
  int finish() {
    while (readMore()) {
    }
    return ended();
  }
  [[nodiscard]] const std::string& all() const { return printed_; }

 private:
  int ended() {
    if (id_ > 0) ::waitpid(id_, &status_, 0);
    id_ = -1;
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
  }
  bool readMore() {
    if (!terminal_) return false;
    pollfd waiting{terminal_.get(), POLLIN, 0};
    std::array<char, 4096> buffer{};
    if (::poll(&waiting, 1, 30'000) != 1) return false;
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
  const Finished checked = run({"python3", "-c",
                                "import json, sys, jsonschema\n"
                                "schema, output = (json.load(open(name)) for name in sys.argv[1:])\n"
                                "jsonschema.Draft202012Validator.check_schema(schema)\n"
                                "jsonschema.validate(output, schema)",
                                std::string(KELVANE_SOURCE_FOLDER) + "/docs/kelvanectl.schema.json",
                                folder.path() + "/output.json"});
  EXPECT_EQ(checked.status, 0) << checked.output << json;
}

}  // namespace kelvane::tests
