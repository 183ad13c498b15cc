#pragma once

#include "caches/definition_store.h"
#include "platform/foundation/file_descriptor.h"

namespace kelvane::caches {

/// Notices that files of definitions have come, gone or changed. Used by one thread.
class DefinitionWatch {
 public:
  explicit DefinitionWatch(const DefinitionDirectories& directories);

  /// Readable when something has happened; -1 where the kernel does not tell.
  [[nodiscard]] int descriptor() const { return notify_.get(); }
  void read();
  [[nodiscard]] bool happened() const { return happened_; }

 private:
  void watch(std::string directory);

  const FileDescriptor notify_;
  bool happened_ = false;
};

}  // namespace kelvane::caches
