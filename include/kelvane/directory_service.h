#pragma once

// A ready-made service of cache directories: it counts and purges them by rules, and answers only requests
// about the volumes of its directories.
//
//   DirectoryServiceOptions options;
//   options.service.id = "com.example.thumbnails";
//   options.service.directories = {"/var/cache/thumbnails"};
//   options.rules.ages = {std::nullopt, std::chrono::hours(24 * 30), std::chrono::hours(24 * 7),
//                         std::chrono::hours(1)};
//   const auto service = DirectoryService::start(options);
//   if (!service) complain(service.error().reason);
//
// Each request opens the directories that are on its volume at that moment, once, and counts or purges what
// it opened. Directories that are missing, or that the rules exclude (kelvane/cache_rules.h), give nothing.
// The oldest files of all directories go first. The service answers before Request::answer_by, with what was
// done until then. Periodic maintenance does nothing.
//
// Threads. The callbacks are called on threads of the library: `purged` one call at a time, `state_changed`
// one at a time, possibly while the other runs. Nothing may be thrown out of them.

#include <functional>
#include <memory>
#include <string>

#include "kelvane/cache_directory.h"
#include "kelvane/cache_rules.h"
#include "kelvane/export.h"
#include "kelvane/result.h"
#include "kelvane/service.h"

namespace kelvane::client {

struct DirectoryServiceOptions {
  /// `directories` is required, `all_volumes` is refused.
  ServiceOptions service;
  CacheRules rules;
  /// For logs: called after each purge, with the sum of what it did in all directories.
  std::function<void(const Request& request, const CachePurge& purge)> purged;
  /// As ServiceHandler::stateChanged.
  std::function<void(ServiceState state, const std::string& reason)> state_changed;
};

class KELVANE_EXPORT DirectoryService {
 public:
  /// Fails as Service::start does, and when a directory or the rules cannot be used (CacheDirectory::open).
  static Result<std::unique_ptr<DirectoryService>> start(const DirectoryServiceOptions& options);
  /// Cancels running calls and waits for them: no callback is called afterwards. Not to be destroyed in a
  /// callback.
  ~DirectoryService();
  DirectoryService(const DirectoryService&) = delete;
  DirectoryService& operator=(const DirectoryService&) = delete;

  /// For ending the program when idle.
  [[nodiscard]] Service& service();

 private:
  struct Parts;
  explicit DirectoryService(std::unique_ptr<Parts> parts);
  const std::unique_ptr<Parts> parts_;  // constant after construction
};

}  // namespace kelvane::client
