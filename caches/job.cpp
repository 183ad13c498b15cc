#include "caches/job.h"

#include <cstring>
#include <type_traits>

namespace kelvane::caches {
namespace {

struct Head {
  std::uint32_t definition;
  std::uint32_t user;
  std::uint32_t group;
  std::int32_t urgency;
  std::int64_t newest;
  std::int64_t now;
  std::int64_t deadline;
  std::uint32_t home_bytes;
  std::uint32_t volume_bytes;
  std::uint32_t shares;
  std::uint32_t kind;
};
static_assert(std::is_trivially_copyable_v<Head> && std::is_trivially_copyable_v<Job::Share>);

std::size_t sizeOf(const Head& head) {
  return sizeof head + head.home_bytes + head.volume_bytes + head.shares * sizeof(Job::Share);
}

bool isWithinLimits(const Head& head) {
  return head.home_bytes <= Job::longest_path && head.volume_bytes <= Job::longest_path &&
         head.shares <= Job::most_shares && head.kind <= static_cast<std::uint32_t>(Job::Kind::list);
}

Head headOf(const Job& job) {
  return {job.definition,
          job.user.id,
          job.user.group,
          job.urgency,
          job.newest,
          job.now,
          job.deadline.time_since_epoch().count(),
          static_cast<std::uint32_t>(job.user.home.size()),
          static_cast<std::uint32_t>(job.volume.size()),
          static_cast<std::uint32_t>(job.shares.size()),
          static_cast<std::uint32_t>(job.kind)};
}

}  // namespace

std::string encode(const Job& job) {
  const Head head = headOf(job);
  if (!isWithinLimits(head)) return {};
  std::string message(reinterpret_cast<const char*>(&head), sizeof head);
  message += job.user.home;
  message += job.volume;
  message.append(reinterpret_cast<const char*>(job.shares.data()), job.shares.size() * sizeof(Job::Share));
  return message;
}

std::optional<Job> decodeJob(const std::string& message) {
  Head head{};
  if (message.size() < sizeof head) return std::nullopt;
  std::memcpy(&head, message.data(), sizeof head);
  if (!isWithinLimits(head) || message.size() != sizeOf(head)) return std::nullopt;
  Job job;
  job.kind = static_cast<Job::Kind>(head.kind);
  job.definition = head.definition;
  job.user = {head.user, head.group, {}, message.substr(sizeof head, head.home_bytes)};
  job.volume = message.substr(sizeof head + head.home_bytes, head.volume_bytes);
  job.urgency = head.urgency;
  job.newest = head.newest;
  job.now = head.now;
  job.deadline = std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(head.deadline));
  job.shares.resize(head.shares);
  if (head.shares > 0) {
    std::memcpy(job.shares.data(), message.data() + message.size() - head.shares * sizeof(Job::Share),
                head.shares * sizeof(Job::Share));
  }
  return job;
}

}  // namespace kelvane::caches
