#include "bench/support/process_work.h"

#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace kelvane::bench {
namespace {

void addSwitches(const std::filesystem::path& thread, ProcessWork& work) {
  std::ifstream status(thread / "status");
  std::string word;
  double number = 0;
  while (status >> word) {
    if (!word.ends_with("voluntary_ctxt_switches:") || !(status >> number)) continue;
    work.context_switches += number;
    if (!word.starts_with("non")) work.voluntary_switches += number;
  }
}

}  // namespace

ProcessWork ProcessWork::of(pid_t process) {
  ProcessWork work;
  clockid_t clock{};
  timespec time{};
  if (::clock_getcpuclockid(process, &clock) == 0 && ::clock_gettime(clock, &time) == 0) {
    work.processor_microseconds =
        static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
  }
  std::error_code gone;  // a thread may end meanwhile
  for (const auto& thread :
       std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task", gone)) {
    addSwitches(thread.path(), work);
    work.threads.insert(thread.path().filename());
  }
  return work;
}

}  // namespace kelvane::bench
