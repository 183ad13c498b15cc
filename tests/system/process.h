#pragma once

#include <sys/types.h>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kelvane::tests {

/// A program that runs beside the test. What it prints, on standard output and error alike, is collected line
/// by line. It is killed with the object at the latest.
class Process {
 public:
  Process(std::vector<std::string> command, std::vector<std::string> environment = {});
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  [[nodiscard]] pid_t id() const { return id_; }
  void signal(int number) const;
  /// Waits for its end; what waitpid says.
  int wait();
  /// Waits until a line that contains `text` has been printed; false when the program has ended without one,
  /// or after half a minute.
  [[nodiscard]] bool printed(const std::string& text);
  /// The same until so many lines contain it.
  [[nodiscard]] bool printed(const std::string& text, std::size_t times);
  /// How many lines contain `text` so far.
  [[nodiscard]] std::size_t count(const std::string& text);
  /// All it has printed so far.
  [[nodiscard]] std::string output();

 private:
  void read(int descriptor);

  pid_t id_ = -1;
  bool waited_ = false;
  std::thread reader_;
  std::mutex mutex_;  // guards all below
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  bool ended_ = false;
};

/// Runs a program to its end.
struct Finished {
  int status;  // exit status, or 128 + the signal that ended it
  std::string output;
};
[[nodiscard]] Finished run(std::vector<std::string> command, std::vector<std::string> environment = {});

/// A program of this build.
[[nodiscard]] std::string built(const std::string& name);

}  // namespace kelvane::tests
