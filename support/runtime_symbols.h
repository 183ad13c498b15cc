#pragma once

namespace kelvane {

/// The address of a symbol of a shared library, loading the library when it is not yet; null when either is
/// missing. A library once loaded stays. Any thread.
[[nodiscard]] void* getFunc(const char* library, const char* symbol);

}  // namespace kelvane
