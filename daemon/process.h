#pragma once

// What the process needs around it before start-up, and its command line.

#include <memory>
#include <optional>
#include <string>

#include "platform/xpc/listener.h"

namespace kelvane {

/// The exit status when the arguments leave nothing more to do; the answer has been printed.
[[nodiscard]] std::optional<int> answerCommandLine(int argc, const char* const* argv);

/// Creates the runtime directory, if its parent exists, and the directory of the declared services in it,
/// both mode 0755. Nothing on success, else what could not be done and why. The directory of the settings is
/// made likewise, but the daemon can do without.
[[nodiscard]] std::optional<std::string> makeDirectories();

/// When volumes count as low, from the environment. Nothing on success, else what is wrong with it.
[[nodiscard]] std::optional<std::string> takeSpaceThresholds();

/// As many descriptors as the process may have; a peer that goes away is no signal; where statistics and
/// notifications go.
void settleProcess();

/// Prints on standard error what is wrong; returns the exit status.
int refuseToStart(const std::string& what);

}  // namespace kelvane
