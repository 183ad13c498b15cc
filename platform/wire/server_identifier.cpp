#include "platform/wire/server_identifier.h"

#include <sys/random.h>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

namespace kelvane::wire {

namespace {

void fillRandomly(std::span<unsigned char> bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::getrandom(bytes.data(), bytes.size(), 0);
    if (count >= 0) {
      bytes = bytes.subspan(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      std::fprintf(stderr, "cannot make a server identifier: getrandom: %s\n", std::strerror(errno));
      std::abort();
    }
  }
}

}  // namespace

std::string makeServerIdentifier() {
  static constexpr std::string_view digits = "0123456789abcdef";
  std::array<unsigned char, 16> random{};
  fillRandomly(random);
  std::string text;
  for (const unsigned char byte : random) {
    text += digits[byte >> 4U];
    text += digits[byte & 15U];
  }
  return text;
}

const std::string& serverIdentifier() {
  static const std::string identifier = makeServerIdentifier();
  return identifier;
}

}  // namespace kelvane::wire
