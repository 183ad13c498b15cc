#pragma once

// Asks a file system how much space it has where the answer may never come: one that a program serves, or
// that is mounted below such a one. The question is put on a thread that can be spared, and given up for
// after a while; until it is answered at last, everybody else who asks is told at once that there is no
// answer.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "support/volumes.h"

namespace kelvane {

/// Any thread.
class SpaceProbe {
 public:
  using Ask = std::function<std::optional<VolumeSpace>(const std::string& path)>;

  /// `ask` may block for any time; it is called on the global queue, once at a time for each path.
  explicit SpaceProbe(Ask ask) : ask_(std::move(ask)), outstanding_(std::make_shared<Outstanding>()) {}

  /// How long anybody waits, counted from when the question was put.
  static constexpr std::int64_t patience = 500'000'000;  // nanoseconds

  /// At most so many questions are out at a time, since each may keep a thread for good; whoever would put
  /// one more has no answer.
  static constexpr std::size_t most_questions = 16;

  [[nodiscard]] std::optional<VolumeSpace> ask(const std::string& path);

 private:
  struct Question;
  struct Outstanding {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<Question>> questions;  // guarded by mutex
  };
  /// Null when too many are out.
  [[nodiscard]] std::shared_ptr<Question> questionAbout(const std::string& path);

  const Ask ask_;
  const std::shared_ptr<Outstanding> outstanding_;  // shared with the threads that ask
};

}  // namespace kelvane
