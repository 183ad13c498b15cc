#pragma once

namespace kelvane::caches {

/// Runs the command, without the daemon; returns the exit status. To be called while the process has one
/// thread. Nothing is thrown.
int runCommandLine(int argc, char** argv) noexcept;

}  // namespace kelvane::caches
