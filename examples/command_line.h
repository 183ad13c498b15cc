#pragma once

// What the examples' command lines have in common.

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>

namespace kelvane::examples {

// Exit codes; wrong usage is CLI11's own, above 100.
inline constexpr int exit_done = 0;
inline constexpr int exit_short = 1;   // less was freed than asked
inline constexpr int exit_failed = 2;  // it could not be done at all

/// Runs a program and returns its exit code. What is thrown ends it with a message.
template <class Program>
int runProgram(const Program& program) noexcept {
  try {
    return program();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return exit_failed;
  }
}

/// "12.5 MiB"; bytes below 1 KiB as they are.
inline std::string inUnits(std::uint64_t bytes) {
  constexpr const char* units[] = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return fmt::format("{} B", bytes);
  double amount = static_cast<double>(bytes) / 1024;
  const char* const* unit = std::begin(units);
  for (; amount >= 1024 && unit + 1 != std::end(units); ++unit) amount /= 1024;
  return fmt::format("{:.1f} {}", amount, *unit);
}

/// Accepts "64M", "64MiB", "1.5g" and plain bytes.
inline CLI::AsSizeValue sizeWithUnit() { return CLI::AsSizeValue(false); }

}  // namespace kelvane::examples
