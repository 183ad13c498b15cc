#pragma once

// What the process needs around it before start-up, and its command line.

#include <memory>
#include <optional>
#include <string>

#include "platform/xpc/listener.h"

namespace kelvane {

/// The exit status if the arguments leave nothing more to do; the output has been printed.
[[nodiscard]] std::optional<int> answerCommandLine(int argc, const char* const* argv);

/// Creates the runtime directory, if its parent exists, and the directory of the declared services in it,
/// both mode 0755. Nothing on success, else what failed and why. The settings directory is also created; if
/// that fails, opening the settings reports it.
[[nodiscard]] std::optional<std::string> makeDirectories();

/// Reads the thresholds for low volumes from the environment. Nothing on success, else the error.
[[nodiscard]] std::optional<std::string> takeSpaceThresholds();

/// Raises the limit on file descriptors to the maximum, ignores SIGPIPE, and sets where statistics and
/// notifications are written.
void settleProcess();

/// Prints on standard error what is wrong; returns the exit status.
int refuseToStart(const std::string& what);

}  // namespace kelvane
