#include "platform/host/random_identifier.h"

#include <fmt/format.h>
#include <sys/random.h>
#include <array>
#include <cerrno>
#include <cstring>

#include "platform/dispatch/fatal.h"

namespace kelvane {

std::string randomIdentifier() {
  std::array<unsigned char, 16> bytes{};
  ssize_t size = -1;
  do {
    size = ::getrandom(bytes.data(), bytes.size(), 0);
  } while (size < 0 && errno == EINTR);  // only before the kernel has its first random numbers
  // random(7): so few bytes come all at once.
  if (size != static_cast<ssize_t>(bytes.size()))
    fatal("the kernel gives no random numbers", std::strerror(errno));
  std::string text;
  for (const unsigned char byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

}  // namespace kelvane
