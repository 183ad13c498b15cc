#include "support/paths.h"

#include <climits>
#include <cstdlib>

namespace kelvane {
namespace {

/// The variable's first path (a service manager may name several, separated by colons), else `otherwise`.
std::string directory(const char* variable, const char* otherwise) {
  const char* value = std::getenv(variable);
  if (value == nullptr || *value == '\0') return otherwise;
  const std::string paths = value;
  return paths.substr(0, paths.find(':'));
}

bool isFileName(const std::string& name) {
  return !name.empty() && name.size() <= NAME_MAX && name != "." && name != ".." &&
         name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

}  // namespace

std::string runtimeDirectory() { return directory("RUNTIME_DIRECTORY", "/run/kelvane"); }
std::string stateDirectory() { return directory("STATE_DIRECTORY", "/var/lib/kelvane"); }
std::string configurationDirectory() { return directory("CONFIGURATION_DIRECTORY", "/etc/kelvane"); }

std::string declaredServiceSocket(const std::string& ID) {
  return isFileName(ID) ? runtimeDirectory() + "/services/" + ID : std::string();
}

}  // namespace kelvane
