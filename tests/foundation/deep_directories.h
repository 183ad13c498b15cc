#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::test {

inline FileDescriptor makeDirectoryAt(int parent, const std::string& name) {
  if (::mkdirat(parent, name.c_str(), 0755) != 0) throw std::runtime_error("cannot make " + name);
  return FileDescriptor(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

inline void writeFileAt(int parent, const std::string& name, std::string_view content) {
  const FileDescriptor file(::openat(parent, name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  if (!file || ::write(file.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()))
    throw std::runtime_error("cannot write " + name);
}

/// Makes `depth` directories of the same name, each inside the one before; their path may exceed PATH_MAX.
/// Calls `also` with each of them, the innermost last, and returns their path relative to `top`.
inline std::string makeDeepDirectories(const std::string& top, const std::string& name, int depth,
                                       const std::function<void(int directory)>& also) {
  FileDescriptor directory(::open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  std::string path;
  for (int level = 0; level < depth; ++level) {
    directory = makeDirectoryAt(directory.get(), name);
    path += (level == 0 ? "" : "/") + name;
    also(directory.get());
  }
  return path;
}

}  // namespace kelvane::test
