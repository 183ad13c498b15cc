// ~/.config/user-dirs.dirs: lines of the form XDG_DOCUMENTS_DIR="$HOME/Dokumente".

#include <string_view>

#include "caches/file_in_home.h"
#include "caches/safety.h"

namespace kelvane::caches {
namespace {

constexpr std::size_t most_directories = 64;

/// The directory that a line names; empty when it names none, or the home itself, which means "none" there.
std::string directoryOf(std::string_view line, const std::string& home) {
  constexpr std::string_view start = "XDG_";
  const std::size_t begin = line.find("_DIR=\"");
  if (line.substr(0, start.size()) != start || begin == std::string_view::npos) return {};
  std::string_view value = line.substr(begin + std::string_view("_DIR=\"").size());
  value = value.substr(0, value.find('"'));
  constexpr std::string_view home_variable = "$HOME/";
  std::string path = value.substr(0, home_variable.size()) == home_variable
                         ? home + "/" + std::string(value.substr(home_variable.size()))
                         : std::string(value);
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path == home ? std::string() : path;
}

}  // namespace

std::vector<std::string> personalDirectories(int home_directory, const std::string& home) {
  const FileInHome file = readFileInHome(home_directory, ".config/user-dirs.dirs");
  std::vector<std::string> directories;
  for (std::string_view rest = file.text; !rest.empty() && directories.size() < most_directories;) {
    const std::size_t end = rest.find('\n');
    if (std::string path = directoryOf(rest.substr(0, end), home); !path.empty()) directories.push_back(path);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
  return directories;
}

}  // namespace kelvane::caches
