#include "support/statistics.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "platform/dispatch/queue.h"
#include "platform/dispatch/source.h"
#include "platform/dispatch/time.h"
#include "platform/foundation/file_descriptor.h"
#include "support/log.h"

namespace kelvane {
namespace {

constexpr std::int64_t write_delay = 1'000'000'000;  // nanoseconds
constexpr std::size_t most_names = 10'000;

bool writeAll(int descriptor, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t n = ::write(descriptor, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

/// Puts a new file in the place of the old one; false with errno set. Readers see one or the other. Not
/// synced: what the file says does not outlive the process.
bool replaceFile(const std::string& path, const std::string& text) {
  const std::string fresh = path + ".new";
  const FileDescriptor file(
      ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (file && writeAll(file.get(), text) && ::rename(fresh.c_str(), path.c_str()) == 0) return true;
  const int error = errno;
  ::unlink(fresh.c_str());
  errno = error;
  return false;
}

void add(Distribution& distribution, double value) {
  distribution.least = distribution.count == 0 ? value : std::min(distribution.least, value);
  distribution.most = distribution.count == 0 ? value : std::max(distribution.most, value);
  distribution.sum += value;
  ++distribution.count;
}

void add(std::int64_t& counter, std::int64_t value) {
  if (!__builtin_add_overflow(counter, value, &counter)) return;
  counter = value < 0 ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
}

/// Names are looked up with every reply of a service, and few of them are new: so they are hashed, and put in
/// order only for those who read them.
struct NameHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view name) const { return std::hash<std::string_view>()(name); }
};
template <class Kept>
using Names = std::unordered_map<std::string, Kept, NameHash, std::equal_to<>>;

struct Domain {
  Names<std::int64_t> counters;
  Names<Distribution> distributions;

  [[nodiscard]] Statistics inOrder() const {
    return {{counters.begin(), counters.end()}, {distributions.begin(), distributions.end()}};
  }
};

/// All statistics of the process, and the writing of them.
class Recorder {
 public:
  static Recorder& shared() {
    static Recorder& recorder = *new Recorder;
    return recorder;
  }

  template <class Kept, class Number>
  void record(std::string_view domain, Names<Kept> Domain::*kept, std::string_view name, Number value) {
    bool full = false;
    {
      const std::lock_guard lock(mutex_);
      Names<Kept>& names = domainNamed(domain).*kept;
      auto found = names.find(name);
      if (found == names.end() && names.size() < most_names) found = names.emplace(name, Kept()).first;
      if (found != names.end()) {
        add(found->second, value);
        scheduleWriting();
      } else {
        full = !std::exchange(said_full_, true);
      }
    }
    if (full) KVLog(3, "%s too many statistics, ignoring %@ and further ones", "addReportStat", name);
  }

  Statistics of(const std::string& domain) {
    const std::lock_guard lock(mutex_);
    const auto found = domains_.find(domain);
    return found != domains_.end() ? found->second.inOrder() : Statistics();
  }

  void forget() {
    const std::lock_guard lock(mutex_);
    domains_.clear();
    timer_.cancel();
    scheduled_ = false;
    said_full_ = false;
  }

  void setFile(const std::string& path) {
    const std::lock_guard lock(mutex_);
    path_ = path;
    if (path_.empty()) timer_.cancel();
    scheduled_ = false;
    if (!domains_.empty()) scheduleWriting();
  }

 private:
  // All with mutex_ held.

  Domain& domainNamed(std::string_view name) {
    const auto found = domains_.find(name);
    return found != domains_.end() ? found->second : domains_[std::string(name)];
  }
  void scheduleWriting() {
    if (path_.empty() || std::exchange(scheduled_, true)) return;
    timer_ = Timer(dispatch_time(DISPATCH_TIME_NOW, write_delay), queue_, [this] { write(); });
  }

  /// On queue_, without the mutex.
  void write() {
    std::string path;
    std::map<std::string, Statistics> domains;
    {
      const std::lock_guard lock(mutex_);
      if (!std::exchange(scheduled_, false)) return;
      path = path_;
      for (const auto& [name, domain] : domains_) domains.emplace(name, domain.inOrder());
    }
    const bool written = replaceFile(path, openMetricsText(domains));
    const int error = errno;
    if (!written && !said_failed_)
      KVLog(3, "%s unable to write %@: %s", "addReportStat", path, strerror(error));
    said_failed_ = !written;
  }

  const dispatch_queue_t queue_ = dispatch_queue_create("com.orvel.kelvane_statistics");
  bool said_failed_ = false;  // only on queue_

  std::mutex mutex_;  // guards all below
  std::map<std::string, Domain, std::less<>> domains_;
  std::string path_;
  bool scheduled_ = false;
  bool said_full_ = false;
  Timer timer_;
};

}  // namespace

void addReportStat(const char* domain, const char* key, std::int64_t value) {
  if (domain == nullptr || key == nullptr) return;
  Recorder::shared().record(domain, &Domain::counters, key, value);
}

void addDistributionStat(const char* domain, double value, const std::string& name) {
  if (domain == nullptr) return;
  Recorder::shared().record(domain, &Domain::distributions, name, value);
}

Statistics statisticsOf(const std::string& domain) { return Recorder::shared().of(domain); }

void forgetStatistics() { Recorder::shared().forget(); }

void setStatisticsFile(const std::string& path) { Recorder::shared().setFile(path); }

}  // namespace kelvane
