#include "support/space_probe.h"

#include <atomic>
#include <utility>

#include "platform/dispatch/group.h"
#include "platform/dispatch/queue.h"
#include "platform/dispatch/time.h"
#include "support/log.h"

namespace kelvane {

struct SpaceProbe::Question {
  dispatch_group_t asking = dispatch_group_create();
  dispatch_time_t give_up_at = dispatch_time(DISPATCH_TIME_NOW, patience);
  std::atomic<bool> given_up{false};
  std::optional<VolumeSpace> answer;  // written before the group is left, read after
};

std::shared_ptr<SpaceProbe::Question> SpaceProbe::questionAbout(const std::string& path) {
  const std::lock_guard lock(outstanding_->mutex);
  const auto found = outstanding_->questions.find(path);
  if (found != outstanding_->questions.end()) return found->second;
  if (outstanding_->questions.size() >= most_questions) return nullptr;
  auto question = std::make_shared<Question>();
  outstanding_->questions.emplace(path, question);
  dispatch_group_async(question->asking, dispatch_get_global_queue(0, 0),
                       [ask = ask_, path, question, outstanding = outstanding_] {
                         question->answer = ask(path);
                         {
                           const std::lock_guard done(outstanding->mutex);
                           outstanding->questions.erase(path);
                         }
                         if (question->given_up) KVLog(3, "%s %@ answers again", "volumeFreespace", path);
                       });
  return question;
}

std::optional<VolumeSpace> SpaceProbe::ask(const std::string& path) {
  const std::shared_ptr<Question> question = questionAbout(path);
  if (question == nullptr) return std::nullopt;
  if (dispatch_group_wait(question->asking, question->give_up_at) == 0) return question->answer;
  if (!question->given_up.exchange(true)) {
    KVLog(3, "%s %@ does not answer, going on without it", "volumeFreespace", path);
  }
  return std::nullopt;
}

}  // namespace kelvane
