#pragma once

// What a user wants of the holders in the user's home: ~/.config/kelvane/caches.toml.
//
//   disabled = ["npm"]
//   [pip]
//   exclude = ["wheels/**"]
//   2 = "never"
//   3 = "60d"
//   keep_bytes = "1G"
//
// Users narrow what a definition allows and never widen it: a shorter age, a root or an include pattern is an
// error. When anything in the file is wrong, nothing of this user goes: what was meant to stay is not known.
//
// Threads. Any. Nothing is thrown.

#include <string>

#include "caches/definition.h"

namespace kelvane::caches {

struct Narrowed {
  Definition definition;  // as the user narrowed it; `enabled` is false when the user disabled it
  std::string reason;     // why nothing of this user's goes; empty: see the definition
};

/// Reads the file as the effective user, through a descriptor of the home directory. It must be a regular
/// file of that user's of at most 64 KiB; no link is followed, nothing is waited for. No file: nothing is
/// narrowed.
[[nodiscard]] Narrowed narrow(const Definition& definition, int home_directory);

}  // namespace kelvane::caches
