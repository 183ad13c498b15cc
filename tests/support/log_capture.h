#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/xpc/transaction.h"
#include "support/log.h"

namespace kelvane::tests {

/// Is the log for as long as it lives, and puts the handle before it back. Any thread. Who is just writing a
/// line when it is destroyed may go on.
class LogCapture {
 public:
  struct Line {
    int level;
    std::string text;
    std::uint32_t transactions;  // open when it was written
  };

  explicit LogCapture(int threshold = 5) : kept_(keep(threshold)), before_(getLogHandle()) {
    setLogHandle(&kept_);
  }
  ~LogCapture() { setLogHandle(before_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  [[nodiscard]] std::vector<Line> lines() const {
    const std::lock_guard lock(kept_.mutex);
    return kept_.lines;
  }
  /// Whether a line holds that text.
  [[nodiscard]] bool contains(std::string_view text) const { return count(text) > 0; }
  [[nodiscard]] bool contains(int level, std::string_view text) const { return count(level, text) > 0; }
  /// How many lines hold that text.
  [[nodiscard]] std::size_t count(std::string_view text) const {
    const std::lock_guard lock(kept_.mutex);
    return countIf([&](const Line& line) { return holds(line, text); });
  }
  [[nodiscard]] std::size_t count(int level, std::string_view text) const {
    const std::lock_guard lock(kept_.mutex);
    return countIf([&](const Line& line) { return line.level == level && holds(line, text); });
  }
  /// Blocks until so many lines hold that text. The test program's time limit is the only one.
  void await(std::string_view text, std::size_t lines = 1) const {
    std::unique_lock lock(kept_.mutex);
    kept_.written.wait(lock,
                       [&] { return countIf([&](const Line& line) { return holds(line, text); }) >= lines; });
  }
  void clear() {
    const std::lock_guard lock(kept_.mutex);
    kept_.lines.clear();
  }

 private:
  /// Outlives the capture: a handle must outlive its use, and a thread that has just asked for it may be
  /// late.
  class Kept final : public LogHandle {
   public:
    explicit Kept(int threshold) : threshold_(threshold) {}
    [[nodiscard]] int threshold() const override { return threshold_; }
    void write(int level, std::string_view line) override {
      const std::lock_guard lock(mutex);
      lines.push_back({level, std::string(line), xpc_transaction_count()});
      written.notify_all();
    }

    mutable std::mutex mutex;  // guards all below
    mutable std::condition_variable written;
    std::vector<Line> lines;

   private:
    const int threshold_;
  };

  static Kept& keep(int threshold) {
    static std::mutex mutex;
    static std::list<Kept>& all = *new std::list<Kept>;  // guarded by mutex; never destroyed
    const std::lock_guard lock(mutex);
    return all.emplace_back(threshold);
  }
  static bool holds(const Line& line, std::string_view text) {
    return line.text.find(text) != std::string::npos;
  }
  template <class Test>
  std::size_t countIf(Test test) const {
    return static_cast<std::size_t>(std::count_if(kept_.lines.begin(), kept_.lines.end(), test));
  }

  Kept& kept_;
  LogHandle* const before_;
};

}  // namespace kelvane::tests
