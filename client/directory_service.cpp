#include "kelvane/directory_service.h"

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

#include "client/cache_clock.h"
#include "client/moment.h"
#include "client/service_directories.h"

namespace kelvane::client {
namespace {

using Caches = std::vector<std::unique_ptr<CacheDirectory>>;

std::size_t placeOf(int urgency) { return static_cast<std::size_t>(std::clamp(urgency, 1, most_urgent)) - 1; }

/// Half of the time that is left.
Moment halfWayTo(Moment end) {
  const Moment now = present();
  return end == Moment::max() ? end : now + std::max(end - now, Moment::duration::zero()) / 2;
}

CacheSurvey surveyed(const Caches& caches, const CacheLimits& limits) {
  const std::int64_t now = cacheTime();
  CacheSurvey all;
  bool first = true;
  for (const auto& cache : caches) {
    const CacheSurvey one = cache->survey(limits, now);
    if (std::exchange(first, false)) {
      all = one;
    } else {
      all += one;
    }
  }
  return all;
}

void add(CachePurge& all, const CachePurge& one) {
  all.freed += one.freed;
  all.held += one.held;
  all.items += one.items;
  all.files += one.files;
  all.failures += one.failures;
  if (all.error == 0) all.error = one.error;
  for (std::size_t i = 0; i < all.stays.size(); ++i) {
    all.stays[i].bytes += one.stays[i].bytes;
    all.stays[i].items += one.stays[i].items;
  }
  if (one.end != CachePurge::End::nothingLeft) all.end = one.end;
}

/// Throws nothing: after a failure, only what was freed before counts. Constant after construction.
class DirectoryHandler final : public ServiceHandler {
 public:
  DirectoryHandler(DirectoryServiceOptions options, ServiceDirectories directories)
      : options_(std::move(options)), directories_(std::move(directories)) {}

  std::optional<Purgeable> purgeable(const Request& request, const Cancellation& cancellation) override try {
    const CacheSurvey survey = surveyed(cachesFor(request), {cancellation, request.answer_by});
    return Purgeable{survey.at_urgency[placeOf(request.urgency)].bytes};
  } catch (const std::exception&) {
    return std::nullopt;
  }

  std::uint64_t purge(const Request& request, const Cancellation& cancellation) override {
    CachePurge all;
    try {
      purgeOldest(all, request, cancellation);
      if (options_.purged) options_.purged(request, all);
    } catch (const std::exception&) {
      all.end = CachePurge::End::failed;
    }
    return all.freed;
  }

  void stateChanged(ServiceState state, const std::string& reason) override {
    if (options_.state_changed) options_.state_changed(state, reason);
  }

 private:
  /// Opens the directories by descriptor, because their names may mean others by now.
  [[nodiscard]] Caches cachesFor(const Request& request) const {
    Caches caches;
    for (const ServiceDirectories::Open& open : directories_.openOn(request.volume)) {
      auto cache = CacheDirectory::open(open.directory.get(), options_.rules);
      if (cache) caches.push_back(*std::move(cache));
    }
    return caches;
  }

  /// Counting may take half of the time; the other half is for deleting what has been found.
  void purgeOldest(CachePurge& all, const Request& request, const Cancellation& cancellation) const {
    const Caches caches = cachesFor(request);
    const CacheSurvey survey = surveyed(caches, {cancellation, halfWayTo(request.answer_by)});
    const int urgency = std::clamp(request.urgency, 1, most_urgent);
    const AgeCut cut = survey.cut(urgency, request.amount);
    for (const auto& cache : caches) {
      if (all.freed >= request.amount) break;
      add(all, cache->purge(urgency, cut, request.amount - all.freed, {cancellation, request.answer_by}));
    }
    if (all.freed >= request.amount) all.end = CachePurge::End::amountFreed;
  }

  const DirectoryServiceOptions options_;
  const ServiceDirectories directories_;
};

/// Why the directories cannot be used with the rules; empty when they can.
std::string faultOf(const ServiceDirectories& directories, const CacheRules& rules) {
  for (const std::string& path : directories.paths()) {
    const auto cache = CacheDirectory::open(path, rules);
    if (!cache) return "service directory \"" + path + "\": " + cache.error().reason;
  }
  return {};
}

}  // namespace

/// The service is destroyed first, which ends the last call of the handler.
struct DirectoryService::Parts {
  Parts(const DirectoryServiceOptions& options, ServiceDirectories directories)
      : handler(options, std::move(directories)) {}

  DirectoryHandler handler;
  std::unique_ptr<Service> service;
};

Result<std::unique_ptr<DirectoryService>> DirectoryService::start(const DirectoryServiceOptions& options) {
  if (options.service.all_volumes)
    return Error{Failure::badRequest, "a directory service has directories, not all_volumes"};
  Result<ServiceDirectories> directories = ServiceDirectories::of(options.service);
  if (!directories) return directories.error();
  const std::string fault = faultOf(*directories, options.rules);
  if (!fault.empty()) return Error{Failure::badRequest, fault};
  auto parts = std::make_unique<Parts>(options, *std::move(directories));
  auto service = Service::start(parts->handler, options.service);
  if (!service) return service.error();
  parts->service = *std::move(service);
  return std::unique_ptr<DirectoryService>(new DirectoryService(std::move(parts)));
}

DirectoryService::DirectoryService(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}
DirectoryService::~DirectoryService() = default;

Service& DirectoryService::service() { return *parts_->service; }

}  // namespace kelvane::client
