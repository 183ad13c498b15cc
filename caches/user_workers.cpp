#include "caches/user_workers.h"

#include <fmt/format.h>
#include <unistd.h>
#include <algorithm>
#include <limits>
#include <map>
#include <set>
#include <utility>

#include "caches/mounts.h"
#include "caches/shares.h"
#include "caches/users.h"
#include "client/cache_clock.h"
#include "support/local_volumes.h"
#include "support/mount_table.h"

namespace kelvane::caches {
namespace {

/// Of the time until the deadline; the rest is for deleting.
constexpr int survey_percent = 40;
constexpr int owners_percent = 25;  // of the time for the survey
constexpr std::size_t most_roots = 8192;

template <class Number>
Number saturated(Number a, Number b) {
  return a > std::numeric_limits<Number>::max() - b ? std::numeric_limits<Number>::max() : a + b;
}

/// The size of each volume; 0 for a path that is not a volume, so that its figures do not count.
ReportReader::MostBytes sizesOf(const std::vector<MountEntry>& mounts) {
  std::set<std::string> volumes;
  for (const MountEntry& volume : localVolumesAmong(mounts)) volumes.insert(volume.target);
  return [volumes, sizes = std::map<std::string, std::uint64_t>()](
             const std::string& volume) mutable -> std::uint64_t {
    if (!volumes.contains(volume)) return 0;
    const auto [size, is_new] = sizes.try_emplace(volume, 0);
    if (is_new) {
      const std::optional<VolumeSpace> space = VolumeSource::current().space(volume);
      size->second = space ? space->bytes_total : 0;
    }
    return size->second;
  };
}

RootReport skipped(const User& user, const std::string& reason) {
  RootReport root;
  root.path = user.home;
  root.user = user.id;
  root.reason = reason;
  return root;
}

}  // namespace

struct UserWorkers::Request {
  Job::Kind kind = Job::Kind::purge;
  std::string volume;
  int urgency = 0;
  std::uint64_t amount = 0;
};

UserWorkers::UserWorkers(std::vector<Definition> definitions, WorkerSettings settings,
                         std::unique_ptr<Spawner> spawner)
    : definitions_(std::move(definitions)),
      settings_(std::move(settings)),
      spawner_(std::move(spawner)),
      is_root_(::geteuid() == 0) {}

HolderReport UserWorkers::survey(const std::string& holder, const std::string& volume,
                                 const client::CacheLimits& limits) {
  return look(holder, volume, limits, 100).report;
}

HolderReport UserWorkers::purge(const std::string& holder, const std::string& volume, int urgency,
                                std::uint64_t amount, const client::CacheLimits& limits) {
  Found found = look(holder, volume, limits, survey_percent);
  carryOut(found, {Job::Kind::purge, volume, urgency, amount}, limits, {});
  return std::move(found.report);
}

HolderReport UserWorkers::list(const std::string& holder, const std::string& volume, int urgency,
                               std::uint64_t amount, const client::CacheLimits& limits, const Item& item) {
  Found found = look(holder, volume, limits, survey_percent);
  carryOut(found, {Job::Kind::list, volume, urgency, amount}, limits, item);
  return std::move(found.report);
}

UserWorkers::Found UserWorkers::look(const std::string& holder, const std::string& volume,
                                     const client::CacheLimits& limits, int percent) {
  Found found;
  const auto definition = std::find_if(definitions_.begin(), definitions_.end(),
                                       [&](const Definition& one) { return one.name == holder; });
  if (definition == definitions_.end()) {
    found.report.reason = fmt::format("unknown holder \"{}\"", holder);
  } else if (!definition->enabled) {
    found.report.reason = definition->cache_class == CacheClass::personal
                              ? "disabled: it holds personal data and must be enabled first"
                              : "disabled";
  }
  if (!found.report.reason.empty()) return found;

  found.definition = static_cast<std::uint32_t>(definition - definitions_.begin());
  Job job;
  job.definition = found.definition;
  job.volume = volume;
  job.now = client::cacheTime();
  const Stage stage = stageUntil(limits.deadline, percent);
  const std::vector<User> users = usersConcerned(found, job, limits, percent);
  std::vector<Job> jobs(users.size(), job);
  for (std::size_t i = 0; i < users.size(); ++i) jobs[i].user = users[i];
  add(found, newRun(stage, limits).run(std::move(jobs)), users);
  if (found.report.roots.empty()) {
    found.report.reason =
        volume.empty() ? "there is no such directory" : "there is no such directory on this volume";
  }
  return found;
}

std::vector<User> UserWorkers::usersConcerned(Found& found, const Job& pattern,
                                              const client::CacheLimits& limits, int percent) {
  if (definitions_[found.definition].owner == Owner::user) return homes(found);
  return owners(found, pattern, limits, percent * owners_percent / 100);
}

/// The users whose homes may be opened; for the others, the reason goes into the report.
std::vector<User> UserWorkers::homes(Found& found) const {
  std::vector<User> users = is_root_ ? usersIn(settings_.passwd)
                                     : std::vector<User>{userIn(settings_.passwd, ::geteuid(), ::getegid())};
  const Mounts mounts(readMountTable(settings_.mount_table).value_or(std::vector<MountEntry>()));
  std::erase_if(users, [&](const User& user) {
    std::string fault = faultOfHome(user.home);
    if (fault.empty()) fault = mounts.refusal(plainPath(user.home));
    if (fault.empty()) return false;
    found.report.roots.push_back(skipped(user, fault));
    found.keys.emplace_back();
    found.users.push_back(user);
    return true;
  });
  return users;
}

/// A worker that is root without capabilities finds the roots of a system holder; their owners decide which
/// workers purge them.
std::vector<User> UserWorkers::owners(Found& found, const Job& pattern, const client::CacheLimits& limits,
                                      int percent) {
  Job job = pattern;
  job.kind = Job::Kind::owners;
  job.user = userIn(settings_.passwd, ::geteuid(), ::getegid());
  job.user.home.clear();
  std::vector<Answer> answers = newRun(stageUntil(limits.deadline, percent), limits).run({job});
  std::map<uid_t, User> owners;
  Answer& answer = answers.front();
  for (const ReportedRoot& root : answer.roots) {
    if (!root.report.reason.empty()) continue;
    User owner = userIn(settings_.passwd, root.report.user, std::numeric_limits<gid_t>::max());
    owner.home.clear();
    if (owner.group != std::numeric_limits<gid_t>::max() && (is_root_ || owner.id == job.user.id)) {
      owners.emplace(owner.id, owner);
      continue;
    }
    found.report.roots.push_back(root.report);
    found.report.roots.back().reason =
        is_root_ ? fmt::format("its owner, user {}, is unknown", owner.id)
                 : fmt::format("it belongs to user {}: only root can purge it", owner.id);
    found.keys.push_back(root.key);
    found.users.push_back(owner);
  }
  std::erase_if(answer.roots, [](const ReportedRoot& root) { return root.report.reason.empty(); });
  add(found, std::move(answers), {job.user});
  std::vector<User> users;
  users.reserve(owners.size());
  for (auto& [id, owner] : owners) users.push_back(std::move(owner));
  return users;
}

void UserWorkers::add(Found& found, std::vector<Answer> answers, const std::vector<User>& users) const {
  for (std::size_t i = 0; i < answers.size(); ++i) {
    found.report.complete = found.report.complete && answers[i].complete;
    if (!answers[i].reason.empty()) {
      ReportedRoot whole;
      whole.report = skipped(users[i], answers[i].reason);
      answers[i].roots.push_back(std::move(whole));
    }
    for (ReportedRoot& root : answers[i].roots) {
      if (found.report.roots.size() == most_roots) {
        found.report.complete = false;
        break;
      }
      found.report.roots.push_back(std::move(root.report));
      found.keys.push_back(root.key);
      found.users.push_back(users[i]);
    }
  }
}

/// A job for each user, and for each job the indices of its roots in the report.
struct UserWorkers::Plan {
  std::vector<Job> jobs;
  std::vector<std::map<RootKey, std::size_t>> roots;
  std::map<uid_t, std::size_t> job_of;

  void add(const Found& found, const Request& request, client::AgeCut cut, std::size_t root,
           std::uint64_t amount) {
    const auto [place, is_new] = job_of.try_emplace(found.users[root].id, jobs.size());
    if (is_new) {
      Job& job = jobs.emplace_back();
      job.kind = request.kind;
      job.definition = found.definition;
      job.user = found.users[root];
      job.volume = request.volume;
      job.urgency = request.urgency;
      job.newest = cut.newest;
      job.now = found.report.roots[root].survey.taken_at;
      roots.emplace_back();
    }
    jobs[place->second].shares.push_back({found.keys[root], amount});
    roots[place->second].emplace(found.keys[root], root);
  }
};

UserWorkers::Plan UserWorkers::planOf(const Found& found, const Request& request) {
  std::vector<std::size_t> usable;
  std::vector<const client::CacheSurvey*> surveys;
  for (std::size_t i = 0; i < found.report.roots.size(); ++i) {
    if (!found.report.roots[i].reason.empty()) continue;
    usable.push_back(i);
    surveys.push_back(&found.report.roots[i].survey);
  }
  const Shares shares = shareOut(surveys, request.urgency, request.amount);
  Plan plan;
  for (std::size_t i = 0; i < usable.size(); ++i) {
    if (shares.amounts[i] > 0) plan.add(found, request, shares.cut, usable[i], shares.amounts[i]);
  }
  return plan;
}

void UserWorkers::carryOut(Found& found, const Request& request, const client::CacheLimits& limits,
                           const Item& item) {
  Plan plan = planOf(found, request);
  JobRun::Item pass_on;
  if (request.kind == Job::Kind::list) {
    pass_on = [&](std::size_t job, const RootKey& key, const client::CacheItem& one) {
      const auto root = plan.roots[job].find(key);
      return root == plan.roots[job].end() || !item || item(found.report.roots[root->second], one);
    };
  }
  const std::vector<Answer> answers =
      newRun(stageUntil(limits.deadline, 100), limits, std::move(pass_on)).run(std::move(plan.jobs));
  for (std::size_t i = 0; i < answers.size(); ++i) {
    found.report.complete = found.report.complete && answers[i].complete;
    settle(found, answers[i], plan.roots[i]);
  }
}

/// Roots without a report get the reason.
void UserWorkers::settle(Found& found, const Answer& answer, std::map<RootKey, std::size_t> roots) {
  for (const ReportedRoot& done : answer.roots) {
    const auto root = roots.find(done.key);
    if (root == roots.end()) continue;
    found.report.roots[root->second].purge = done.report.purge;
    found.report.roots[root->second].reason = done.report.reason;
    roots.erase(root);
  }
  for (const auto& [key, unreported] : roots) found.report.roots[unreported].reason = answer.reason;
}

JobRun UserWorkers::newRun(Stage stage, const client::CacheLimits& limits, JobRun::Item item) {
  return {*spawner_,      slots_, stage, limits.cancellation, sizesOf(VolumeSource::current().mounts()),
          std::move(item)};
}

std::unique_ptr<Workers> startWorkers(std::vector<Definition> definitions, WorkerSettings settings) {
  std::unique_ptr<Spawner> spawner = Spawner::start(definitions, settings);
  if (!spawner) return nullptr;
  return std::make_unique<UserWorkers>(std::move(definitions), std::move(settings), std::move(spawner));
}

std::unique_ptr<Workers> Workers::start(std::vector<Definition> definitions) {
  return startWorkers(std::move(definitions), {});
}

client::CacheFigure HolderReport::atUrgency(int urgency) const {
  client::CacheFigure sum;
  if (urgency < 1 || urgency > client::most_urgent) return sum;
  for (const RootReport& root : roots) {
    if (!root.reason.empty()) continue;
    const client::CacheFigure& one = root.survey.at_urgency[static_cast<std::size_t>(urgency) - 1];
    sum.bytes = saturated(sum.bytes, one.bytes);
    sum.items = saturated(sum.items, one.items);
  }
  return sum;
}

std::uint64_t HolderReport::freed() const {
  std::uint64_t sum = 0;
  for (const RootReport& root : roots) sum = saturated(sum, root.purge.freed);
  return sum;
}

}  // namespace kelvane::caches
