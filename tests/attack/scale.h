#pragma once

#include <chrono>
#include <cstddef>

namespace kelvane::tests {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool is_sanitized = true;
#else
inline constexpr bool is_sanitized = false;
#endif

/// How hard the attacks are, and what must hold meanwhile.
struct Scale {
  unsigned half_messages;
  unsigned connections;
  unsigned check_ins;
  unsigned waiting_calls;
  std::chrono::milliseconds flood;  // duration of attacks that have no end of their own
  std::size_t most_resident_megabytes;
  std::chrono::milliseconds slowest_answer;  // to another user; the 99th percentile, on a busy machine
};

/// Sanitizers slow everything down, and keep what was freed in memory for a while. An answer takes less than
/// 50 ms on an idle machine; each test prints what it saw.
inline constexpr Scale scale = is_sanitized ? Scale{40,
                                                    3'000,
                                                    800,
                                                    1'200,
                                                    std::chrono::milliseconds(1'500),
                                                    900,
                                                    std::chrono::milliseconds(1'000)}
                                            : Scale{40,
                                                    10'000,
                                                    3'000,
                                                    1'200,
                                                    std::chrono::milliseconds(3'000),
                                                    150,
                                                    std::chrono::milliseconds(250)};

}  // namespace kelvane::tests
