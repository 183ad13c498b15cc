#pragma once

#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <functional>
#include <string>

namespace kelvane::caches::tests {

/// Runs `body` in a child process and returns its result.
inline std::string inChild(const std::function<std::string()>& body) {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) return "no pipe";
  const pid_t child = ::fork();
  if (child == 0) {
    const std::string text = body();
    [[maybe_unused]] const ssize_t written = ::write(ends[1], text.data(), text.size());
    ::_exit(0);
  }
  ::close(ends[1]);
  std::string text;
  std::array<char, 4096> buffer{};
  ssize_t length = 0;
  while ((length = ::read(ends[0], buffer.data(), buffer.size())) > 0)
    text.append(buffer.data(), static_cast<std::size_t>(length));
  ::close(ends[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  return status == 0 ? text : text + " [ended with status " + std::to_string(status) + "]";
}

}  // namespace kelvane::caches::tests
