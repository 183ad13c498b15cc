#pragma once

// The commands and options that `kelvanectl caches` and kelvane-caches share.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

namespace kelvane::tools {

enum class CachesCommand : std::uint8_t { list, explain, check, enable, disable };

struct CachesRequest {
  CachesCommand command = CachesCommand::list;
  std::string name;
  std::string volume;  // or a path inside one; empty: all
  int urgency = 3;
  std::uint64_t amount = 0;  // 0: all that may go
  bool files = false;        // name each file
  std::vector<std::string> paths;
};

/// Adds the commands to `app`. Without one, the request is a list.
void describeCaches(CLI::App& app, CachesRequest& request);

/// The command-line words of a request.
[[nodiscard]] std::vector<std::string> wordsOf(const CachesRequest& request);

}  // namespace kelvane::tools
