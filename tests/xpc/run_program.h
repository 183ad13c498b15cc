#pragma once

#include <sys/wait.h>
#include <array>
#include <cstdio>
#include <string>

namespace kelvane::tests {

struct ProgramResult {
  int status = -1;     // as the shell says it
  std::string output;  // and what went to standard error
};

/// Runs a command line and waits for its end.
inline ProgramResult runProgram(const std::string& command) {
  ProgramResult result;
  FILE* const pipe = ::popen(("{ " + command + "\n} 2>&1").c_str(), "r");  // NOLINT(cert-env33-c)
  if (pipe == nullptr) return result;
  std::array<char, 4096> buffer;
  for (std::size_t size = 0; (size = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;)
    result.output.append(buffer.data(), size);
  const int status = ::pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 256;
  return result;
}

/// For the shell.
inline std::string quoted(const std::string& text) {
  std::string out = "'";
  for (const char each : text) {
    if (each == '\'') {
      out += "'\\''";
    } else {
      out += each;
    }
  }
  return out + "'";
}

}  // namespace kelvane::tests
