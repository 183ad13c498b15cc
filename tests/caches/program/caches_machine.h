#pragma once

// A machine with users, homes on a volume of their own, and caches in them; for programs whose main is
// tests/system/main.cpp, run by root.

#include <string>
#include <vector>

#include "kelvane/value.h"
#include "tests/system/daemon.h"
#include "tests/system/machine.h"
#include "tests/system/process.h"

namespace kelvane::tests {

inline constexpr unsigned alice_id = 4242;
inline constexpr std::int64_t day = 86400;
inline constexpr std::uint64_t mebibyte = 1 << 20;

/// The name of a cache, and the lines of its [urgency].
[[nodiscard]] std::string definitionText(const std::string& name, const std::string& urgencies,
                                         const std::string& more = {});

/// /home is a volume with the home of alice, the only user.
class CachesMachine {
 public:
  explicit CachesMachine(unsigned megabytes);
  ~CachesMachine();
  CachesMachine(const CachesMachine&) = delete;
  CachesMachine& operator=(const CachesMachine&) = delete;

  [[nodiscard]] std::string volume() const { return "/home"; }
  [[nodiscard]] std::string home() const { return "/home/alice"; }
  [[nodiscard]] std::string cacheOf(const std::string& name) const { return home() + "/.cache/" + name; }
  /// Where the administrator's definitions are.
  [[nodiscard]] std::string definitions() const { return configuration_.path() + "/caches.d"; }
  void define(const std::string& name, const std::string& urgencies, const std::string& more = {}) const;
  /// So many files of alice's cache, all of that age; returns the directory's path.
  std::string fill(const std::string& name, unsigned count, std::uint64_t bytes, std::int64_t age,
                   const std::string& prefix = "file") const;
  [[nodiscard]] std::uint64_t freeSpace() const;
  [[nodiscard]] std::size_t countFiles(const std::string& name) const;

  /// For kelvane-caches and kelvanectl.
  [[nodiscard]] std::vector<std::string> environment() const;
  /// kelvane-caches with these arguments.
  [[nodiscard]] Finished caches(std::vector<std::string> arguments) const;
  /// The same through `kelvanectl caches`.
  [[nodiscard]] Finished ctlCaches(std::vector<std::string> arguments) const;
  /// The same as alice.
  [[nodiscard]] Finished cachesAsAlice(std::vector<std::string> arguments) const;
  /// What `explain` says of a cache.
  [[nodiscard]] Dictionary explained(const std::string& name, int urgency,
                                     std::vector<std::string> more = {}) const;

 private:
  Folder configuration_;
  Folder users_;
};

/// The sockets of caches for a daemon, and the service behind them.
class CachesService {
 public:
  /// `environment` adds to that of the machine.
  CachesService(const CachesMachine& machine, const Daemon& daemon, const std::vector<std::string>& names,
                const std::vector<std::string>& environment = {});

  /// Of the service that was started last.
  [[nodiscard]] pid_t id();
  [[nodiscard]] Process& process() { return process_; }
  /// Waits until it has ended that many times with that status.
  [[nodiscard]] bool ended(int status, std::size_t times = 1);

 private:
  Process process_;
};

/// Declares the caches to daemons that start during its lifetime.
class Declared {
 public:
  explicit Declared(std::vector<std::string> names);
  ~Declared();
  Declared(const Declared&) = delete;
  Declared& operator=(const Declared&) = delete;

 private:
  const std::vector<std::string> names_;
};

}  // namespace kelvane::tests
