#pragma once

// The live view on a terminal, and what it has drawn.

#include <string>

#include "tests/system/services.h"
#include "tests/tools/program.h"

namespace kelvane::tests {

inline constexpr std::uint64_t mebibyte = 1 << 20;
/// What gives the terminal back.
inline const std::string restored = "\033[?7h\033[?25h\033[?1049l";

inline std::string without(std::string text, const std::string& what) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos;) text.erase(at, what.size());
  return text;
}

/// The last view that was drawn whole, without what places it.
inline std::string lastFrame(const std::string& printed) {
  const std::size_t end = printed.rfind("\033[J");
  const std::size_t begin = printed.rfind("\033[H", end);
  if (end == std::string::npos || begin == std::string::npos) return {};
  return without(without(printed.substr(begin + 3, end - begin - 3), "\033[K"), "\r");
}

inline std::size_t framesIn(const std::string& printed) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = printed.find("\033[J", at)) != std::string::npos; ++at) ++count;
  return count;
}

/// Reads until a whole view contains the text.
inline bool showed(OnTerminal& watch, const std::string& text) {
  return watch.printed(
      [&](const std::string& all) { return lastFrame(all).find(text) != std::string::npos; });
}

/// A daemon that is idle, and one service.
struct Watching : testing::Test {
  Watching() : volume(32) {
    service = startService(daemon, "deletes", "com.example.cache", volume.fill("cache", 8, mebibyte));
    EXPECT_TRUE(becomesIdle(daemon));
  }
  const Volume volume;
  Daemon daemon;
  std::unique_ptr<Process> service;
};

}  // namespace kelvane::tests
