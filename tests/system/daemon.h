#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/dispatch/group.h"
#include "platform/foundation/file_descriptor.h"
#include "support/protocols.h"
#include "tests/system/machine.h"
#include "tests/system/process.h"

namespace kelvane::tests {

/// A real daemon in folders of its own, with every entitlement granted to the user that runs the tests.
class Daemon {
 public:
  /// Starts it, and returns when it has told its service manager that it is ready. No volume is ever low for
  /// it. What `environment` says comes first, so a STATE_DIRECTORY there outlives this daemon, and a
  /// KELVANE_LOW_SPACE counts.
  explicit Daemon(std::string program = built("kelvaned"), std::vector<std::string> environment = {});
  ~Daemon();

  /// Ends it with that signal and starts it again, in the same folders.
  void restart(int signal);

  [[nodiscard]] std::string socket() const { return folder_.path() + "/run/kelvane.sock"; }
  [[nodiscard]] std::string launchSocket() const { return folder_.path() + "/run/launch.sock"; }
  [[nodiscard]] std::string address() const { return "unix:path=" + socket(); }
  [[nodiscard]] std::string runtimeFolder() const { return folder_.path() + "/run"; }
  [[nodiscard]] Process& process() { return *process_; }
  [[nodiscard]] bool logged(const std::string& text) { return process_->printed(text); }
  /// The daemon says it is ready to whoever started it; was that so?
  [[nodiscard]] bool isReady() const { return ready_; }
  /// What it says next to whoever started it; nothing when that takes longer than `patience`.
  [[nodiscard]] std::optional<std::string> nextNotification(std::chrono::milliseconds patience);

 private:
  void start();

  const std::string program_;
  std::vector<std::string> environment_;
  Folder folder_;
  FileDescriptor notifications_;
  bool ready_ = false;
  std::unique_ptr<Process> process_;
};

/// A client that waits for its answers.
class Client {
 public:
  explicit Client(const Daemon& daemon);
  ~Client();

  /// What the daemon answered; nothing when it answered nil or the connection ended.
  [[nodiscard]] std::optional<Dictionary> purge(const Dictionary& info);
  /// Sends the request and does not wait.
  void startPurge(const Dictionary& info);
  /// Waits for the answer to `startPurge`.
  [[nodiscard]] std::optional<Dictionary> finishPurge();
  /// What the services could free, as `purge`.
  [[nodiscard]] std::optional<Dictionary> purgeableSpace(const Dictionary& info);
  void setState(const Value& value, const std::string& key);
  [[nodiscard]] Value state(const std::string& key);
  /// True when the connection is alive and answers.
  [[nodiscard]] bool isServed();
  /// Why the last request got no answer.
  [[nodiscard]] const std::string& failure() const { return failure_; }
  [[nodiscard]] const std::shared_ptr<KelvaneClientProtocol>& daemon() const { return daemon_; }

 private:
  std::shared_ptr<xpc::Connection> connection_;
  std::shared_ptr<KelvaneClientProtocol> daemon_;
  dispatch_semaphore_t answered_;
  dispatch_semaphore_t ended_;
  std::optional<Dictionary> answer_;
  std::string failure_;
};

}  // namespace kelvane::tests
