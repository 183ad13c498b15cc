#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "caches/definition_store.h"
#include "caches/program/holder_service.h"
#include "caches/workers.h"
#include "kelvane/service.h"

namespace kelvane::caches {

/// A service on each socket that was handed over. Used by one thread.
class Services {
 public:
  using Moment = std::chrono::steady_clock::time_point;

  /// `store` and `workers` must outlive this.
  Services(const DefinitionStore& store, Workers& workers) : store_(store), workers_(workers) {}

  /// Returns why a socket cannot be served; empty when all are.
  [[nodiscard]] std::string start();
  /// Since when no peer has been connected to any of them.
  [[nodiscard]] std::optional<Moment> idleSince() const;
  /// True: they have stopped accepting, and no connected peer waits. False: they go on.
  [[nodiscard]] bool pauseIfIdle();
  /// Cancels the purges and waits for their answers, at most until the deadline.
  void finish(Moment deadline);

 private:
  struct Served {
    std::unique_ptr<HolderService> handler;
    std::unique_ptr<client::Service> service;  // ends before its handler
  };
  [[nodiscard]] std::string serve(const std::string& socket, const std::vector<std::string>& sockets);

  const DefinitionStore& store_;
  Workers& workers_;
  std::vector<Served> served_;
};

}  // namespace kelvane::caches
