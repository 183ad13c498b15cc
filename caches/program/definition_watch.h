#pragma once

#include "caches/definition_store.h"
#include "platform/foundation/file_descriptor.h"

namespace kelvane::caches {

/// Notices when definition files are added, removed or changed. Used by one thread.
class DefinitionWatch {
 public:
  explicit DefinitionWatch(const DefinitionDirectories& directories);

  /// Readable when something has changed; -1 when inotify is not available.
  [[nodiscard]] int descriptor() const { return notify_.get(); }
  void read();
  [[nodiscard]] bool happened() const { return happened_; }

 private:
  void watch(std::string directory);

  const FileDescriptor notify_;
  bool happened_ = false;
};

}  // namespace kelvane::caches
