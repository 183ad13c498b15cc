#pragma once

#include <stdexcept>
#include <string>

namespace kelvane::tools {

/// What kelvanectl ends with. Scripts rely on these, and the manual lists them.
enum ExitCode : int {
  exit_met = 0,
  exit_short = 1,        // less was freed than asked, or files were checked and have faults
  exit_usage = 2,        // the command line cannot be carried out as it stands
  exit_refused = 3,      // this user has no right to it
  exit_no_daemon = 4,    // nobody listens
  exit_no_answer = 5,    // the daemon went away, or is silent
  exit_failed = 6,       // something else, such as a file that cannot be read
  exit_cancelled = 130,  // by Ctrl-C or SIGTERM
};

/// Ends the program with one line on standard error that says what and what to do.
class Problem : public std::runtime_error {
 public:
  Problem(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
  [[nodiscard]] ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

}  // namespace kelvane::tools
