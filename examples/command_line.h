#pragma once

// What the examples' command lines have in common.

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

namespace kelvane::examples {

// Exit codes; wrong usage is CLI11's own, above 100.
inline constexpr int exit_done = 0;
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

}  // namespace kelvane::examples
