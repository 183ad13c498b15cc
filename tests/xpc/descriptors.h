#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>

namespace kelvane::tests {

inline std::size_t openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all))) - 1;  // without the folder's own
}

}  // namespace kelvane::tests
