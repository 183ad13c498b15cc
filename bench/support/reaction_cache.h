#pragma once

#include <sys/types.h>
#include <atomic>
#include <cstdint>
#include <string>

namespace kelvane::bench {

/// What a cache tells the benchmark, in memory that both share.
struct CacheReport {
  std::atomic<std::uint64_t>
      first_request_at;  // on the monotonic clock in nanoseconds; 0: none since it was cleared
  std::atomic<std::uint64_t> bytes_freed;
};

/// A service in a process of its own that holds files in a folder and deletes what it is asked for.
class CacheProcess {
 public:
  /// To be made before this process has threads. Returns when it has checked in with the daemon.
  CacheProcess(const std::string& ID, const std::string& folder, const std::string& daemon_socket);
  ~CacheProcess();
  CacheProcess(const CacheProcess&) = delete;
  CacheProcess& operator=(const CacheProcess&) = delete;

  [[nodiscard]] CacheReport& report() const { return *report_; }

 private:
  CacheReport* report_;
  pid_t process_ = -1;
};

}  // namespace kelvane::bench
