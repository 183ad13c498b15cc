#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include "kelvane/client.h"
#include "tools/options.h"
#include "tools/problem.h"

namespace kelvane::tools {

/// The daemon's socket, and what else is in its runtime folder.
[[nodiscard]] std::string socketOf(const Options& options);
[[nodiscard]] std::string runtimePathOf(const Options& options, const char* name);
[[nodiscard]] std::string launchSocketOf(const Options& options);

/// The same failure in kelvanectl's terms: which exit code, what is wrong, what to do.
[[nodiscard]] Problem problemOf(const client::Error& error, const std::string& socket);

/// Asks, and gives up on a daemon that says nothing for so long. `begin` gets the completion.
template <class T, class Begin>
client::Result<T> ask(std::chrono::seconds patience, const Begin& begin) {
  const auto answer = std::make_shared<std::promise<client::Result<T>>>();
  std::future<client::Result<T>> future = answer->get_future();
  begin([answer](client::Result<T> result) { answer->set_value(std::move(result)); });
  if (future.wait_for(patience) == std::future_status::ready) return future.get();
  return client::Error{client::Failure::connectionLost, "the daemon does not answer"};
}

}  // namespace kelvane::tools
