#include "caches/worker.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstring>
#include <exception>
#include <utility>

#include "caches/guard.h"
#include "caches/identity.h"
#include "caches/in_use.h"
#include "caches/mounts.h"
#include "caches/report.h"
#include "caches/roots.h"
#include "caches/safety.h"
#include "caches/user_rules.h"
#include "caches/users.h"
#include "kelvane/volume.h"
#include "support/mount_table.h"

namespace kelvane::caches {
namespace {

constexpr int report_descriptor = 3;
/// Whatever a definition says, nothing younger goes.
constexpr client::CacheRules::Seconds least_age = std::chrono::hours(1);

/// Keeps the socket and nothing else. Afterwards the socket is report_descriptor.
bool keepOnly(int socket) {
  const FileDescriptor nothing(::open("/dev/null", O_RDWR | O_CLOEXEC));
  for (int standard = 0; standard < report_descriptor; ++standard) {
    if (::dup2(nothing.get(), standard) < 0) return false;
  }
  if (socket != report_descriptor && ::dup2(socket, report_descriptor) < 0) return false;
  return ::close_range(report_descriptor + 1, ~0U, 0) == 0;
}

/// A change of the IDs clears the parent-death signal, so this must come afterwards.
bool endWith(pid_t spawner) { return ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && ::getppid() == spawner; }

class Work {
 public:
  Work(const Definition& definition, const WorkerSettings& settings, const Job& job)
      : definition_(definition),
        job_(job),
        mounts_(readMountTable(settings.mount_table).value_or(std::vector<MountEntry>())),
        report_(report_descriptor),
        guard_(report_descriptor) {}

  void run() {
    Base base{mounts_, {}, job_.kind != Job::Kind::owners};
    Narrowed narrowed{definition_, {}};
    if (definition_.owner == Owner::user) {
      if (std::string reason = openHome(base); !reason.empty()) return report_.end(true, reason);
      narrowed = narrow(definition_, base.home.directory.get());
      if (!narrowed.reason.empty()) return report_.end(true, narrowed.reason);
      if (!narrowed.definition.enabled) return report_.end(true, "disabled by the user");
    }
    const bool complete = workOn(narrowed.definition, base);
    report_.end(complete && !guard_.isCancelled(), "");
  }

 private:
  [[nodiscard]] std::string openHome(Base& base) const {
    if (std::string fault = faultOfHome(job_.user.home); !fault.empty()) return fault;
    OpenedDirectory home = openDirectory(mounts_, job_.user.home, Links::ofRoot);
    if (!home.directory) return home.reason;
    // Names are looked up in it, and files opened relative to it.
    FileDescriptor readable(::openat(home.directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    if (!readable) return fmt::format("{}: {}", home.path, std::strerror(errno));
    if (::fstat(readable.get(), &status) != 0) return fmt::format("{}: {}", home.path, std::strerror(errno));
    if (status.st_uid != job_.user.id) return fmt::format("{} belongs to user {}", home.path, status.st_uid);
    home.directory = std::move(readable);
    base.home = std::move(home);
    return {};
  }

  bool workOn(const Definition& definition, const Base& base) {
    std::vector<Root> roots;
    for (const std::string& written : definition.roots) {
      for (Root& root : expandRoot(base, written)) {
        if (roots.size() < ReportLimits::most_roots) roots.push_back(std::move(root));
      }
    }
    if (job_.kind == Job::Kind::owners) return reportOwners(roots);
    std::erase_if(roots, [&](const Root& root) { return !isMine(root); });
    leaveOutRepeated(roots);
    const bool in_home = definition.owner == Owner::user;
    const std::vector<std::string> personal =
        in_home ? personalDirectories(base.home.directory.get(), base.home.path) : std::vector<std::string>();
    bool complete = true;
    for (const Root& root : roots) {
      if (guard_.isCancelled() || std::chrono::steady_clock::now() >= job_.deadline) return false;
      complete = workOn(definition, base, root, personal) && complete;
    }
    return complete;
  }

  /// Other workers purge the roots of a system holder that other users own.
  [[nodiscard]] bool isMine(const Root& root) const {
    return definition_.owner == Owner::user || (root.directory && root.owner == job_.user.id);
  }

  bool reportOwners(const std::vector<Root>& roots) {
    for (const Root& root : roots) {
      RootReport report;
      report.path = root.path;
      report.user = root.owner;
      report.reason = root.reason;
      report_.root(report, root.key);
    }
    return true;
  }

  /// False when the work is incomplete.
  bool workOn(const Definition& definition, const Base& base, const Root& root,
              const std::vector<std::string>& personal) {
    const Job::Share* const share = shareOf(root);
    if (job_.kind != Job::Kind::survey && share == nullptr) return true;
    RootReport report;
    report.path = root.path;
    report.reason = root.reason;
    if (report.reason.empty()) report.reason = whyNot(definition, base, root, personal);
    if (report.reason.empty()) report.reason = place(root, report);
    if (!job_.volume.empty() && report.volume != job_.volume && report.reason.empty()) return true;
    if (report.reason.empty()) doIt(definition, base, root, share, report);
    const bool is_complete =
        job_.kind == Job::Kind::survey ? report.survey.complete : isComplete(report.purge);
    report_.root(report, root.key);
    return is_complete || !report.reason.empty();
  }

  [[nodiscard]] const Job::Share* shareOf(const Root& root) const {
    const auto share = std::find_if(job_.shares.begin(), job_.shares.end(),
                                    [&](const Job::Share& one) { return one.root == root.key; });
    return share == job_.shares.end() ? nullptr : &*share;
  }

  static bool isComplete(const client::CachePurge& purge) {
    return purge.end == client::CachePurge::End::amountFreed ||
           purge.end == client::CachePurge::End::nothingLeft;
  }

  [[nodiscard]] std::string whyNot(const Definition& definition, const Base& base, const Root& root,
                                   const std::vector<std::string>& personal) const {
    if (root.owner != job_.user.id) return fmt::format("it belongs to user {}", root.owner);
    return refusal(root.path, definition, base.home.path, personal).value_or("");
  }

  static std::string place(const Root& root, RootReport& report) {
    const client::Result<std::string> volume = client::volumeOf(root.directory.get());
    if (!volume) return volume.error().reason;
    report.volume = *volume;
    return {};
  }

  void doIt(const Definition& definition, const Base& base, const Root& root, const Job::Share* share,
            RootReport& report) {
    const Signs signs(definition.in_use, base.home.path, base.home.directory.get(), root.directory.get(),
                      root.wildcard);
    report.reason = signs.now();
    if (!report.reason.empty()) return;
    client::CacheRules rules = definition.rules;
    rules.youngest = std::max(rules.youngest, least_age);
    rules.locks = signs.locks();
    for (std::string& pattern : protectedBelow(root.path, definition, base.home.path)) {
      rules.exclude.push_back(std::move(pattern));
    }
    const auto cache = client::CacheDirectory::open(root.directory.get(), rules);
    if (!cache) {
      report.reason = cache.error().reason;
      return;
    }
    const client::CacheLimits limits{guard_.watch(&signs), job_.deadline};
    doIt(**cache, root, share, limits, report);
    guard_.watch(nullptr);
  }

  void doIt(client::CacheDirectory& cache, const Root& root, const Job::Share* share,
            const client::CacheLimits& limits, RootReport& report) {
    if (job_.kind == Job::Kind::survey) {
      report.survey = cache.survey(limits, job_.now);
    } else if (job_.kind == Job::Kind::purge) {
      report.purge = cache.purge(job_.urgency, {job_.newest}, share->amount, limits);
    } else {
      const auto item = [&](const client::CacheItem& one) { return report_.item(root.key, one); };
      report.purge = cache.list(job_.urgency, {job_.newest}, share->amount, limits, item);
    }
  }

  const Definition& definition_;
  const Job& job_;
  const Mounts mounts_;
  ReportWriter report_;
  Guard guard_;
};

/// Returns what failed before the work began.
std::string prepare(const Job& job, int socket, pid_t spawner, bool is_root) {
  if (!keepOnly(socket)) ::_exit(EXIT_FAILURE);  // there is nobody to tell
  ::prctl(PR_SET_NAME, "caches-worker");
  std::string fault = is_root ? becomeForGood(job.user) : stayForGood(job.user);
  if (fault.empty()) fault = limitResources();
  if (fault.empty() && !endWith(spawner)) fault = "the process that started this one has ended";
  return fault;
}

}  // namespace

void runWorker(const std::vector<Definition>& definitions, const WorkerSettings& settings, const Job& job,
               FileDescriptor socket, pid_t spawner) noexcept {
  const std::string fault = prepare(job, socket.release(), spawner, ::geteuid() == 0);
  try {
    if (!fault.empty()) {
      ReportWriter(report_descriptor).end(false, "cannot give up the rights of the service: " + fault);
    } else if (job.definition < definitions.size()) {
      if (settings.before_work) settings.before_work(job, report_descriptor);
      Work(definitions[job.definition], settings, job).run();
    }
  } catch (const std::exception& failure) {  // such as out of memory: what was reported counts
    ReportWriter(report_descriptor).end(false, failure.what());
  }
  ::_exit(EXIT_SUCCESS);
}

}  // namespace kelvane::caches
