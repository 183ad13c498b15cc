#pragma once

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/log.h"

namespace kelvane::tests {

/// Is the log for as long as it lives, and puts the handle before it back. Any thread. Work that may still
/// log must have ended before it is destroyed.
class LogCapture final : public LogHandle {
 public:
  struct Line {
    int level;
    std::string text;
  };

  explicit LogCapture(int threshold = 5) : threshold_(threshold), before_(getLogHandle()) {
    setLogHandle(this);
  }
  ~LogCapture() override {
    setLogHandle(before_);
    const std::lock_guard lock(mutex_);  // what wrote the last line has let go of the lines
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  [[nodiscard]] int threshold() const override { return threshold_; }
  void write(int level, std::string_view line) override {
    const std::lock_guard lock(mutex_);
    lines_.push_back({level, std::string(line)});
    written_.notify_all();
  }

  [[nodiscard]] std::vector<Line> lines() const {
    const std::lock_guard lock(mutex_);
    return lines_;
  }
  /// Whether a line holds that text.
  [[nodiscard]] bool contains(std::string_view text) const { return count(text) > 0; }
  [[nodiscard]] bool contains(int level, std::string_view text) const { return count(level, text) > 0; }
  /// How many lines hold that text.
  [[nodiscard]] std::size_t count(std::string_view text) const {
    const std::lock_guard lock(mutex_);
    return countIf([&](const Line& line) { return holds(line, text); });
  }
  [[nodiscard]] std::size_t count(int level, std::string_view text) const {
    const std::lock_guard lock(mutex_);
    return countIf([&](const Line& line) { return line.level == level && holds(line, text); });
  }
  /// Blocks until so many lines hold that text. The test program's time limit is the only one.
  void await(std::string_view text, std::size_t lines = 1) const {
    std::unique_lock lock(mutex_);
    written_.wait(lock,
                  [&] { return countIf([&](const Line& line) { return holds(line, text); }) >= lines; });
  }
  void clear() {
    const std::lock_guard lock(mutex_);
    lines_.clear();
  }

 private:
  static bool holds(const Line& line, std::string_view text) {
    return line.text.find(text) != std::string::npos;
  }
  template <class Test>
  std::size_t countIf(Test test) const {
    return static_cast<std::size_t>(std::count_if(lines_.begin(), lines_.end(), test));
  }

  const int threshold_;
  LogHandle* const before_;
  mutable std::mutex mutex_;  // guards all below
  mutable std::condition_variable written_;
  std::vector<Line> lines_;
};

}  // namespace kelvane::tests
