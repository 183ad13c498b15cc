#pragma once

// Queries a file system that may never answer, such as one that a program serves. Each query has its own
// thread outside the pool, because it may block that thread forever. The caller gives up after a time limit.
// Until the query is answered, every other caller with the same query gets no answer, at once.

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

/// What a query is about. Of equal ones at most one is outstanding at a time.
struct ProbedVolume {
  std::string path;
  /// The kernel's mount ID, 0 if unknown: a new mount at the path need not wait for the answer of an earlier
  /// one.
  std::uint64_t mount = 0;
  /// The user that the query is about, where that matters.
  std::uint64_t user = 0;
  auto operator<=>(const ProbedVolume&) const = default;
};

/// How long a caller waits for an answer, counted from the start of the query.
inline constexpr std::int64_t probe_patience = 500'000'000;  // nanoseconds

/// The most outstanding queries of one kind, since each may block a thread forever. A further query gets no
/// answer.
inline constexpr std::size_t most_probes = 256;

/// Log texts for a volume that does not answer, and for one that answers again.
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

  /// Starts the query, unless it is already outstanding. Does not wait. Null if it cannot be started.
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
  std::optional<Answer> answer_;  // written before the group is left, read afterwards
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
