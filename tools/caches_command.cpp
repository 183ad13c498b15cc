// `kelvanectl caches` becomes kelvane-caches, which does the work with the code that purges.

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>

#include "tools/commands.h"
#include "tools/problem.h"

namespace kelvane::tools {
namespace {

/// The program in the directory of this one, as in a build tree. A user who can put a program there could
/// also replace this one, except in a sticky directory, which is therefore not trusted.
std::optional<std::string> programBeside() {
  std::array<char, PATH_MAX> self{};
  const ssize_t length = ::readlink("/proc/self/exe", self.data(), self.size() - 1);
  if (length <= 0) return std::nullopt;
  std::string directory(self.data(), static_cast<std::size_t>(length));
  directory.resize(directory.rfind('/') + 1);
  struct stat status {};
  if (::stat(directory.c_str(), &status) != 0 || (status.st_mode & S_ISVTX) != 0) return std::nullopt;
  std::string program = directory + "kelvane-caches";
  return ::access(program.c_str(), X_OK) == 0 ? std::optional(program) : std::nullopt;
}

}  // namespace

int cachesCommand(const Options& options, const Screen& /*screen*/) {
  const std::string program = programBeside().value_or(KELVANE_CACHES_PROGRAM);
  std::vector<std::string> words = wordsOf(options.caches);
  words.insert(words.begin(), "kelvane-caches");
  if (options.json) words.insert(words.begin() + 1, "--json");
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  ::execv(program.c_str(), arguments.data());
  if (errno == ENOENT) {
    throw Problem(exit_failed,
                  fmt::format("{} is not installed: `apt install kelvane-caches` brings it", program));
  }
  throw Problem(exit_failed, fmt::format("cannot run {}: {}", program, std::strerror(errno)));
}

}  // namespace kelvane::tools
