#pragma once

#include <sys/types.h>
#include <set>
#include <string>

namespace kelvane::bench {

/// What a process has done so far. The threads that it has now are counted; those that ended, in the
/// processor time only.
struct ProcessWork {
  double processor_microseconds = 0;
  double context_switches = 0;
  double voluntary_switches = 0;    // of these: it had to wait
  std::set<std::string> threads{};  // whose switches these are

  static ProcessWork of(pid_t process);
  friend ProcessWork operator-(const ProcessWork& a, const ProcessWork& b) {
    return {a.processor_microseconds - b.processor_microseconds, a.context_switches - b.context_switches,
            a.voluntary_switches - b.voluntary_switches, a.threads};
  }
};

}  // namespace kelvane::bench
