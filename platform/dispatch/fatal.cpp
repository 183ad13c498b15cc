#include "platform/dispatch/fatal.h"

#include <unistd.h>
#include <cstdlib>
#include <string>

namespace kelvane {

void fatal(std::string_view what, std::string_view detail) noexcept {
  std::string line = "kelvane: fatal: ";
  line += what;
  if (!detail.empty()) line.append(" (").append(detail).append(")");
  line += '\n';
  const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
  static_cast<void>(written);
  std::abort();
}

}  // namespace kelvane
