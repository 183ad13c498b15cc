#pragma once

// Makes system calls of this program fail. The definitions in system_call_faults.cpp replace those of the C
// library for the whole program.

#include <string_view>

namespace kelvane::wire {

/// While this lives, the next `times` calls of the function ("recvmsg", "sendmsg" or "getrandom") fail with
/// `error`; the later ones are the kernel's again. With error 0, "getrandom" does not fail but returns one
/// byte. One at a time; any thread's calls count.
class SystemCallFault {
 public:
  SystemCallFault(std::string_view function, int error, int times);
  SystemCallFault(const SystemCallFault&) = delete;
  SystemCallFault& operator=(const SystemCallFault&) = delete;
  ~SystemCallFault();

  /// How many have failed.
  [[nodiscard]] static int failed();
};

}  // namespace kelvane::wire
