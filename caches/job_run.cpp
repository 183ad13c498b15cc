#include "caches/job_run.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <numeric>
#include <utility>

namespace kelvane::caches {
namespace {

using std::chrono::steady_clock;

/// Cancellation is a flag, and slots become free elsewhere.
constexpr int tick = 20;  // milliseconds
constexpr std::chrono::hours longest_stage(1);
constexpr std::chrono::seconds grace(1);  // for cancelled workers to report and end
constexpr int work_percent = 90;
constexpr const char* nobody_wants_more = "no more items were wanted";

}  // namespace

Stage stageUntil(steady_clock::time_point deadline, int percent) {
  const steady_clock::time_point now = steady_clock::now();
  const steady_clock::duration left =
      std::clamp<steady_clock::duration>(deadline <= now ? steady_clock::duration() : deadline - now,
                                         steady_clock::duration(), longest_stage) *
      percent / 100;
  return {now + left, now + left * work_percent / 100};
}

JobRun::JobRun(Spawner& spawner, WorkerSlots& slots, Stage stage, client::Cancellation cancellation,
               ReportReader::MostBytes most_bytes, Item item)
    : spawner_(spawner),
      slots_(slots),
      call_(slots),
      stage_(stage),
      cancellation_(std::move(cancellation)),
      most_bytes_(std::move(most_bytes)),
      item_(std::move(item)),
      buffer_(ReportLimits::longest_message) {}

std::vector<Answer> JobRun::run(std::vector<Job> jobs) {
  jobs_ = std::move(jobs);
  answers_.resize(jobs_.size());
  waiting_.resize(jobs_.size());
  std::iota(waiting_.rbegin(), waiting_.rend(), std::size_t{0});
  std::stable_partition(waiting_.begin(), waiting_.end(),
                        [&](std::size_t job) { return slots_.wasLate(jobs_[job].user.id); });
  while (!waiting_.empty() || !running_.empty()) {
    cancelWhenAsked();
    if (steady_clock::now() >= stage_.end) {
      giveUp(cancelled_ ? "cancelled" : "it did not answer in time");
      break;
    }
    startSome();
    waitForSome();
    if (sated_) {
      giveUp(nobody_wants_more);
      break;
    }
  }
  return std::move(answers_);
}

void JobRun::cancelWhenAsked() {
  if (cancelled_ || !cancellation_.isCancelled()) return;
  cancelled_ = true;
  stage_.end = std::min(stage_.end, steady_clock::now() + grace);
  for (const std::size_t job : waiting_) answers_[job].reason = "cancelled";
  waiting_.clear();
  for (const auto& running : running_) ::shutdown(running->worker.socket.get(), SHUT_WR);
}

void JobRun::startSome() {
  for (std::size_t i = waiting_.size(); i-- > 0;) {
    if (start(waiting_[i])) waiting_.erase(waiting_.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

/// False: it has to wait.
bool JobRun::start(std::size_t number) {
  Job& job = jobs_[number];
  const WorkerSlots::Slot slot = call_.take(job.user.id);
  if (slot == WorkerSlots::Slot::busy) return false;
  if (slot == WorkerSlots::Slot::stuck) {
    answers_[number].reason = "an earlier worker of this user was killed and has not ended";
    return true;
  }
  job.deadline = std::min(job.deadline, stage_.work_end);
  std::optional<Spawner::Worker> worker = spawner_.startWorker(job);
  if (!worker) {
    answers_[number].reason = fmt::format("cannot start a worker: {}", std::strerror(errno));
    call_.giveBack(job.user.id);
    return true;
  }
  ReportReader::Item item;
  if (item_) {
    item = [this, number](const RootKey& root, const client::CacheItem& one) {
      sated_ = sated_ || !item_(number, root, one);
      return !sated_;
    };
  }
  running_.push_back(std::make_unique<Running>(
      Running{number, std::move(*worker), ReportReader(job, most_bytes_, std::move(item))}));
  return true;
}

void JobRun::waitForSome() {
  std::vector<pollfd> watched;
  for (const auto& running : running_) watched.push_back({running->worker.socket.get(), POLLIN, 0});
  if (watched.empty() && waiting_.empty()) return;
  if (::poll(watched.data(), watched.size(), tick) <= 0) return;
  for (std::size_t i = 0; i < watched.size(); ++i) {
    if (watched[i].revents != 0) receive(*running_[i]);
  }
  std::erase_if(running_, [](const auto& running) { return !running->worker.socket; });
}

/// One message, so that a worker that writes without end does not delay the others.
void JobRun::receive(Running& running) {
  const ssize_t length =
      ::recv(running.worker.socket.get(), buffer_.data(), buffer_.size(), MSG_DONTWAIT | MSG_TRUNC);
  if (length < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (length <= 0) return finish(running);
  const bool fits = static_cast<std::size_t>(length) <= buffer_.size();
  if (fits && running.reader.take(buffer_.data(), static_cast<std::size_t>(length))) return;
  abandon(running, sated_ ? nobody_wants_more : "its report is malformed");
}

/// The worker has closed its end.
void JobRun::finish(Running& running) {
  const uid_t user = jobs_[running.job].user.id;
  Answer& answer = answers_[running.job];
  answer = std::move(running.reader.answer());
  if (!running.reader.hasEnded()) {
    answer.complete = false;
    answer.reason = "its worker ended early";
  }
  slots_.setLate(user, false);
  call_.giveBack(user);
  running.worker.socket.reset();
}

void JobRun::abandon(Running& running, const char* reason) {
  Answer& answer = answers_[running.job];
  answer = std::move(running.reader.answer());
  answer.complete = false;
  answer.reason = reason;
  spawner_.kill(running.worker.number);
  call_.abandon(jobs_[running.job].user.id, std::move(running.worker.socket));
}

void JobRun::giveUp(const char* reason) {
  for (const auto& running : running_) {
    if (!cancelled_ && !sated_) slots_.setLate(jobs_[running->job].user.id, true);
    abandon(*running, reason);
  }
  running_.clear();
  for (const std::size_t job : waiting_) answers_[job].reason = "no time was left to count it";
  waiting_.clear();
}

}  // namespace kelvane::caches
