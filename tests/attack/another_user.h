#pragma once

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "tests/attack/attacked_daemon.h"

namespace kelvane::tests {

/// Another user's client, which reads a value of the state every few milliseconds while this object lives.
class AnotherUser {
 public:
  explicit AnotherUser(const AttackedDaemon& daemon);
  ~AnotherUser();
  AnotherUser(const AnotherUser&) = delete;
  AnotherUser& operator=(const AnotherUser&) = delete;

  struct Waits {
    std::size_t answers = 0;
    std::chrono::microseconds median{0};
    std::chrono::microseconds percentile99{0};
    std::chrono::microseconds longest{0};
  };
  /// Continues until there are enough answers for a 99th percentile, then stops.
  [[nodiscard]] Waits stop();

 private:
  void ask();
  [[nodiscard]] bool isAnswered() const;

  RawPeer peer_;
  std::atomic<bool> stopping_{false};
  std::vector<std::chrono::microseconds> waits_;  // the thread's, until it has ended
  std::thread thread_;
};

/// Stops the user, keeps and prints what was measured, and expects that both were served as they should be.
void expectUnharmed(AnotherUser& user, const AttackedDaemon& daemon);

}  // namespace kelvane::tests
