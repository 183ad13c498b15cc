#pragma once

// What the reader and the writer of property lists share of libplist. Internal to this folder.

#include <plist/plist.h>

#include <cstdlib>
#include <memory>

namespace kelvane::foundation {

struct PlistNodeDeleter {
  void operator()(void* node) const { plist_free(node); }
};
/// Owns a node that has no parent, and all below it.
using PlistNode = std::unique_ptr<void, PlistNodeDeleter>;

struct Freed {
  void operator()(void* memory) const { std::free(memory); }
};
/// Owns memory that libplist allocated for its caller.
template <class T>
using PlistMemory = std::unique_ptr<T, Freed>;

}  // namespace kelvane::foundation
