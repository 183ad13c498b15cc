#pragma once

// A user's own rules for the holders in that user's home: ~/.config/kelvane/caches.toml.
//
//   disabled = ["npm"]
//   [pip]
//   exclude = ["wheels/**"]
//   2 = "never"
//   3 = "60d"
//   keep_bytes = "1G"
//
// Users narrow what a definition allows and never widen it: a shorter age, a root or an include pattern is an
// error. A malformed file stops all of the user's holders, because it is not known what was meant to stay.
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
/// file of that user of at most 64 KiB. Follows no link and never blocks. Without a file, nothing is
/// narrowed.
[[nodiscard]] Narrowed narrow(const Definition& definition, int home_directory);

}  // namespace kelvane::caches
