// The C interface: rules, and a cache directory that is counted or purged by them.

#include <memory>

#include "client/c_interface.h"
#include "kelvane/cache_directory.h"

using namespace kelvane::client;

namespace {

CacheRules& rulesOf(kelvane_rules* rules) { return required(rules, "rules").rules; }

std::chrono::seconds secondsOf(std::uint64_t seconds, const char* name) {
  constexpr std::uint64_t longest = 1'000ULL * 366 * 24 * 3600;  // so that sums with times do not overflow
  if (seconds > longest) {
    refuse("invalid " + std::string(name) + " " + std::to_string(seconds) + ": expected seconds, at most " +
           std::to_string(longest));
  }
  return std::chrono::seconds(seconds);
}

CacheLock lockOf(int kind, const char* path) {
  std::string at = bytesOf(path, "path");
  switch (kind) {
    case KELVANE_LOCK_FLOCK:
      return {CacheLock::Kind::flock, std::move(at)};
    case KELVANE_LOCK_RECORD:
      return {CacheLock::Kind::record, std::move(at)};
    case KELVANE_LOCK_EXISTS:
      return {CacheLock::Kind::exists, std::move(at)};
  }
  refuse("invalid kind of lock " + std::to_string(kind) + ": expected a kelvane_lock");
}

CacheUnit unitOf(int unit) {
  switch (unit) {
    case KELVANE_UNIT_FILE:
      return CacheUnit::file;
    case KELVANE_UNIT_DIRECTORY:
      return CacheUnit::directory;
  }
  refuse("invalid unit " + std::to_string(unit) + ": expected a kelvane_unit");
}

CacheLimits limitsOf(const kelvane_request* request) {
  if (request != nullptr) return {request->cancellation, request->request.answer_by};
  return {Cancellation(std::make_shared<std::atomic<bool>>(false))};
}

std::unique_ptr<CacheDirectory> opened(const char* path, const kelvane_rules* rules) {
  return valueOf(CacheDirectory::open(bytesOf(path, "path"), required(rules, "rules").rules));
}

kelvane_purge_end endOf(CachePurge::End end) {
  switch (end) {
    case CachePurge::End::amountFreed:
      return KELVANE_PURGE_AMOUNT_FREED;
    case CachePurge::End::nothingLeft:
      return KELVANE_PURGE_NOTHING_LEFT;
    case CachePurge::End::cancelled:
      return KELVANE_PURGE_CANCELLED;
    case CachePurge::End::tooLate:
      return KELVANE_PURGE_TOO_LATE;
    case CachePurge::End::failed:
      break;
  }
  return KELVANE_PURGE_FAILED;
}

}  // namespace

kelvane_rules* kelvane_rules_new(kelvane_error* error) {
  return made(error, [] { return new kelvane_rules; });
}
void kelvane_rules_free(kelvane_rules* rules) { delete rules; }

kelvane_failure kelvane_rules_set_age(kelvane_rules* rules, int urgency, std::uint64_t seconds,
                                      kelvane_error* error) {
  return guarded(error, [&] {
    auto& age = rulesOf(rules).ages[static_cast<std::size_t>(checkedUrgency(urgency)) - 1];
    age = secondsOf(seconds, "age");
  });
}

kelvane_failure kelvane_rules_set_youngest(kelvane_rules* rules, std::uint64_t seconds,
                                           kelvane_error* error) {
  return guarded(error, [&] { rulesOf(rules).youngest = secondsOf(seconds, "age"); });
}

kelvane_failure kelvane_rules_add_include(kelvane_rules* rules, const char* pattern, kelvane_error* error) {
  return guarded(error, [&] { rulesOf(rules).include.push_back(bytesOf(pattern, "pattern")); });
}

kelvane_failure kelvane_rules_add_exclude(kelvane_rules* rules, const char* pattern, kelvane_error* error) {
  return guarded(error, [&] { rulesOf(rules).exclude.push_back(bytesOf(pattern, "pattern")); });
}

kelvane_failure kelvane_rules_set_unit(kelvane_rules* rules, int unit, kelvane_error* error) {
  return guarded(error, [&] { rulesOf(rules).unit = unitOf(unit); });
}

kelvane_failure kelvane_rules_add_marker(kelvane_rules* rules, const char* name, kelvane_error* error) {
  return guarded(error, [&] {
    std::string marker = bytesOf(name, "name");
    if (marker.find('/') != std::string::npos)
      refuse("invalid marker " + quoted(marker) + ": expected a name without \"/\"");
    rulesOf(rules).markers.push_back(std::move(marker));
  });
}

kelvane_failure kelvane_rules_add_lock(kelvane_rules* rules, int kind, const char* path,
                                       kelvane_error* error) {
  return guarded(error, [&] { rulesOf(rules).locks.push_back(lockOf(kind, path)); });
}

kelvane_failure kelvane_rules_add_unit_lock(kelvane_rules* rules, int kind, const char* path,
                                            kelvane_error* error) {
  return guarded(error, [&] { rulesOf(rules).unit_locks.push_back(lockOf(kind, path)); });
}

kelvane_failure kelvane_rules_set_open_files_stay(kelvane_rules* rules, bool stay, kelvane_error* error) {
  return guarded(error, [&] { rulesOf(rules).open_files_stay = stay; });
}

kelvane_failure kelvane_rules_set_keep_newest(kelvane_rules* rules, std::uint64_t count,
                                              kelvane_error* error) {
  return guarded(error, [&] { rulesOf(rules).keep_newest = count; });
}

kelvane_failure kelvane_rules_set_keep_bytes(kelvane_rules* rules, std::uint64_t bytes,
                                             kelvane_error* error) {
  return guarded(error, [&] { rulesOf(rules).keep_bytes = bytes; });
}

kelvane_failure kelvane_rules_set_tagged_only(kelvane_rules* rules, bool tagged, kelvane_error* error) {
  return guarded(error, [&] { rulesOf(rules).tagged_only = tagged; });
}

kelvane_failure kelvane_count_directory(const char* path, const kelvane_rules* rules,
                                        const kelvane_request* request, kelvane_directory_count* count,
                                        kelvane_error* error) {
  return guarded(error, [&] {
    kelvane_directory_count found = copyOf(count, "count");
    const CacheSurvey survey = opened(path, rules)->survey(limitsOf(request));
    for (std::size_t urgency = 0; urgency < urgency_count; ++urgency) {
      found.bytes[urgency] = survey.at_urgency[urgency].bytes;
      found.items[urgency] = survey.at_urgency[urgency].items;
    }
    found.complete = survey.complete;
    writeTo(count, found);
  });
}

kelvane_failure kelvane_purge_directory(const char* path, const kelvane_rules* rules, int urgency,
                                        std::uint64_t amount, const kelvane_request* request,
                                        kelvane_directory_purge* purge, kelvane_error* error) {
  return guarded(error, [&] {
    kelvane_directory_purge done = copyOf(purge, "purge");
    checkedUrgency(urgency);
    const auto directory = opened(path, rules);
    const CacheLimits limits = limitsOf(request);
    const AgeCut cut = directory->survey(limits).cut(urgency, amount);
    const CachePurge purged = directory->purge(urgency, cut, amount, limits);
    done.end = endOf(purged.end);
    done.freed = purged.freed;
    done.held = purged.held;
    done.items = purged.items;
    done.failures = purged.failures;
    done.error = purged.error;
    writeTo(purge, done);
  });
}
