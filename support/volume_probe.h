#pragma once

// Asks a file system something that it may never answer: one that a program serves, or that lies on such a
// one. Each question has a thread of its own, outside the pool, since it may keep it for good. Whoever asks
// gives up after a while; until the question is answered at last, everybody else who asks the same is told at
// once that there is no answer.

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "platform/dispatch/group.h"
#include "platform/dispatch/thread.h"
#include "platform/dispatch/time.h"

namespace kelvane {

/// What a question is about. Of equals at most one question is out at a time.
struct ProbedVolume {
  std::string path;
  /// The kernel's mount ID, 0 when it is unknown: what is mounted at the path now need not wait for the
  /// answer of what was mounted there before.
  std::uint64_t mount = 0;
  /// Whom the question concerns, where that matters.
  std::uint64_t user = 0;
  auto operator<=>(const ProbedVolume&) const = default;
};

/// How long anybody waits for an answer, counted from when the question was put.
inline constexpr std::int64_t probe_patience = 500'000'000;  // nanoseconds

/// At most so many questions of one kind are out at a time, since each may keep a thread for good; whoever
/// would put one more has no answer.
inline constexpr std::size_t most_probes = 256;

/// What the log says of a volume that does not answer, and of one that has answered after all.
void noteNoAnswer(const char* speaker, const std::string& path);
void noteLateAnswer(const char* speaker, const std::string& path);

/// Any thread.
template <class Answer>
class VolumeProbe {
 public:
  /// May block for any time.
  using Ask = std::function<std::optional<Answer>()>;
  class Question;

  /// `speaker` is the selector that the log names.
  explicit VolumeProbe(const char* speaker)
      : speaker_(speaker), outstanding_(std::make_shared<Outstanding>()) {}

  /// Puts the question, unless it is out already. Does not wait. Null when it cannot be put.
  [[nodiscard]] std::shared_ptr<Question> put(const ProbedVolume& volume, Ask ask);
  /// Waits for the answer; nothing for null.
  [[nodiscard]] std::optional<Answer> answerTo(const std::shared_ptr<Question>& question) const;

 private:
  struct Outstanding {
    std::mutex mutex;
    std::map<ProbedVolume, std::shared_ptr<Question>> questions;  // guarded by mutex
  };

  const char* const speaker_;
  const std::shared_ptr<Outstanding> outstanding_;  // shared with the threads that ask
};

template <class Answer>
class VolumeProbe<Answer>::Question {
 public:
  explicit Question(std::string path) : path_(std::move(path)) {}

 private:
  friend class VolumeProbe;

  const std::string path_;
  const dispatch_group_t asking_ = dispatch_group_create();
  const dispatch_time_t give_up_at_ = dispatch_time(DISPATCH_TIME_NOW, probe_patience);
  std::atomic<bool> given_up_{false};
  std::optional<Answer> answer_;  // written before the group is left, read after
};

template <class Answer>
std::shared_ptr<typename VolumeProbe<Answer>::Question> VolumeProbe<Answer>::put(const ProbedVolume& volume,
                                                                                 Ask ask) {
  const std::lock_guard lock(outstanding_->mutex);
  const auto found = outstanding_->questions.find(volume);
  if (found != outstanding_->questions.end()) return found->second;
  if (outstanding_->questions.size() >= most_probes) return nullptr;
  auto question = std::make_shared<Question>(volume.path);
  dispatch_group_enter(question->asking_);
  try {
    dispatch::startThread([speaker = speaker_, volume, ask = std::move(ask), question,
                           outstanding = outstanding_] {
      question->answer_ = ask();
      {
        const std::lock_guard done(outstanding->mutex);
        outstanding->questions.erase(volume);
      }
      if (question->given_up_) noteLateAnswer(speaker, volume.path);
      dispatch_group_leave(question->asking_);
    }).detach();
  } catch (const std::system_error&) {
    dispatch_group_leave(question->asking_);
    return nullptr;
  }
  outstanding_->questions.emplace(volume, question);
  return question;
}

template <class Answer>
std::optional<Answer> VolumeProbe<Answer>::answerTo(const std::shared_ptr<Question>& question) const {
  if (question == nullptr) return std::nullopt;
  if (dispatch_group_wait(question->asking_, question->give_up_at_) == 0) return question->answer_;
  if (!question->given_up_.exchange(true)) noteNoAnswer(speaker_, question->path_);
  return std::nullopt;
}

}  // namespace kelvane
