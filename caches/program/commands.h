#pragma once

#include "caches/definition_store.h"
#include "caches/workers.h"
#include "tools/caches_options.h"
#include "tools/screen.h"

namespace kelvane::caches {

/// What a command works with.
struct Console {
  tools::CachesRequest request;
  bool json = false;
  tools::Screen screen;
};

// Each prints what it found, and returns an exit code or throws a tools::Problem.
int listCommand(const Console& console, const DefinitionStore& store, Workers& workers);
int explainCommand(const Console& console, const DefinitionStore& store, Workers& workers);
int checkCommand(const Console& console);
int enableCommand(const Console& console, const DefinitionStore& store,
                  const DefinitionDirectories& directories);
int disableCommand(const Console& console, const DefinitionStore& store,
                   const DefinitionDirectories& directories);

/// Throws a Problem when there is none.
[[nodiscard]] const Definition& definitionNamed(const DefinitionStore& store, const std::string& name);

/// Limits for a command that a person runs: only Ctrl-C ends it early.
[[nodiscard]] client::CacheLimits noLimits();

/// To standard output; throws a Problem when it cannot be written.
void print(const std::string& text);

}  // namespace kelvane::caches
