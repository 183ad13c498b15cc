#pragma once

#include <string_view>

namespace kelvane {

/// Ends the process with SIGABRT after writing "kelvane: fatal: <what> (<detail>)" to standard error. For
/// errors of the program itself, never for anything that a peer, a file or a user can bring about.
[[noreturn]] void fatal(std::string_view what, std::string_view detail = {}) noexcept;

}  // namespace kelvane
