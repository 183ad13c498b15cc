#pragma once

namespace kelvane::caches {

/// Carries the command out, without the daemon; the exit status. To be called while the process has one
/// thread. Nothing is thrown.
int runCommandLine(int argc, char** argv) noexcept;

}  // namespace kelvane::caches
