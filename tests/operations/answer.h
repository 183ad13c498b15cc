#pragma once

#include <gtest/gtest.h>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

namespace kelvane::tests {

/// One answer that may come. Any thread.
template <class Result>
class Answer {
 public:
  void come(Result result) {
    const std::scoped_lock lock(state_->mutex);
    state_->result = std::move(result);
    ++state_->times;
    state_->came.notify_all();
  }
  [[nodiscard]] bool hasCome() const {
    const std::scoped_lock lock(state_->mutex);
    return state_->times > 0;
  }
  /// Blocks until it came; the test program's time limit is the only one.
  Result await() const {
    std::unique_lock lock(state_->mutex);
    state_->came.wait(lock, [this] { return state_->times > 0; });
    EXPECT_EQ(state_->times, 1);
    return *state_->result;
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable came;
    std::optional<Result> result;
    int times = 0;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace kelvane::tests
