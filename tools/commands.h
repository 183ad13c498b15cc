#pragma once

#include "tools/options.h"

namespace kelvane::tools {

// The commands: each prints what it found, and returns an exit code or throws a Problem.
int statusCommand(const Options& options, const Screen& screen);
int purgeableCommand(const Options& options, const Screen& screen);
int purgeCommand(const Options& options, const Screen& screen);
int servicesCommand(const Options& options, const Screen& screen);
int checkCommand(const Options& options, const Screen& screen);
int watchCommand(const Options& options, const Screen& screen);
int statsCommand(const Options& options, const Screen& screen);
int stateGetCommand(const Options& options, const Screen& screen);
int stateSetCommand(const Options& options, const Screen& screen);
int stateDeleteCommand(const Options& options, const Screen& screen);
int activityRunCommand(const Options& options, const Screen& screen);
int eventsPostCommand(const Options& options, const Screen& screen);
/// Returns only by throwing a Problem.
int cachesCommand(const Options& options, const Screen& screen);

/// To standard output. A reader that went away ends the program without a word; what else cannot be written
/// is a Problem.
void print(const std::string& text);

}  // namespace kelvane::tools
