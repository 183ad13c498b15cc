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
  /// Fails with what is wrong with the options' `directories`.
  static Result<ServiceDirectories> of(const ServiceOptions& options);

  /// Whether the handler decides for itself what a request concerns.
  [[nodiscard]] bool areAllVolumes() const { return paths_.empty(); }
  /// Absolute, without links, none inside another.
  [[nodiscard]] const std::vector<std::string>& paths() const { return paths_; }

  struct Open {
    std::string path;
    FileDescriptor directory;  // O_PATH
  };
  /// Those that are on the volume now, opened. What is mounted in two places is one directory.
  [[nodiscard]] std::vector<Open> openOn(const std::string& volume) const;

 private:
  std::vector<std::string> paths_;
};

/// Their paths.
[[nodiscard]] std::vector<std::string> pathsOf(const std::vector<ServiceDirectories::Open>& open);

}  // namespace kelvane::client
