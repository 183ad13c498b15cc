#pragma once

#include <string>
#include <vector>

#include "kelvane/result.h"
#include "kelvane/service.h"
#include "platform/foundation/file_descriptor.h"

namespace kelvane::client {

/// Where a service's data is, and which part of it a request concerns. Constant after construction.
class ServiceDirectories {
 public:
  /// Fails when the options' `directories` cannot be used, with the reason.
  static Result<ServiceDirectories> of(const ServiceOptions& options);

  /// Whether the handler itself finds out which data a request concerns.
  [[nodiscard]] bool areAllVolumes() const { return paths_.empty(); }
  /// Absolute, without links, none inside another.
  [[nodiscard]] const std::vector<std::string>& paths() const { return paths_; }

  struct Open {
    std::string path;
    FileDescriptor directory;  // O_PATH
  };
  /// Opens the directories that are on the volume now. A directory that is mounted in two places counts once.
  [[nodiscard]] std::vector<Open> openOn(const std::string& volume) const;

 private:
  std::vector<std::string> paths_;
};

/// Their paths.
[[nodiscard]] std::vector<std::string> pathsOf(const std::vector<ServiceDirectories::Open>& open);

}  // namespace kelvane::client
