#pragma once

// Asking the daemon for space.
//
//   kelvane::client::Client daemon;
//   auto freed = daemon.purge(kelvane::client::purgeRequest("/var", 100 << 20));
//   if (!freed) complain(freed.error().reason);
//   else use((*freed)[kelvane::KELVANE_AMOUNT].unsignedLongLongValue());
//
// Values. Dictionaries are kelvane::Dictionary of kelvane/value.h, a cheap value that copies by sharing. The
// names of the keys are in kelvane/keys.h. Amounts are bytes.
//
// Who may ask. What the grants in entitlements.d give to the user, group and label of this process. A request
// that is not granted is answered with Failure::refused, and so is one about a volume that the daemon does
// not serve: the daemon does not tell the two apart.
//
// Threads. Every member may be called on any thread, several at the same time. Each request has a connection
// of its own, so a cancel or a question never waits behind a purge.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kelvane/export.h"
#include "kelvane/keys.h"
#include "kelvane/result.h"
#include "kelvane/value.h"

namespace kelvane::client {

struct ClientOptions {
  std::string daemon_socket;  // empty: kelvane.sock in $RUNTIME_DIRECTORY, by default /run/kelvane
};

/// The request for `bytes` on the volume mounted at `volume`. `urgency_limit` says how far the services may
/// go: 1 (only what nobody will miss) to 4 (all that can be made again); anything else counts as 3.
/// `pass_seconds` bounds the wait for the services in each of the passes (300 at most; 0: 2, 4, 6, 8
/// seconds).
[[nodiscard]] KELVANE_EXPORT Dictionary purgeRequest(const std::string& volume, std::uint64_t bytes,
                                                     int urgency_limit = 3, std::uint64_t pass_seconds = 0);

class KELVANE_EXPORT Client {
 public:
  template <class T>
  using Completion = std::function<void(Result<T>)>;

  explicit Client(const ClientOptions& options = {});
  /// Ends what is outstanding: completions not yet called are called with Failure::connectionLost before this
  /// returns, and none afterwards. Not to be called in a completion, nor while another thread is in a member.
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // --- blocking ---
  // A purge takes as long as the services need: up to four passes, each of at most 300 seconds, and purges of
  // others before it. A question takes up to eleven seconds. There is no other time limit.

  /// Needs PURGE_ENTITLEMENT. The answer holds what was freed; readPurgeReport (kelvane/purge_report.h) takes
  /// it apart. Less freed than asked is no error.
  Result<Dictionary> purge(const Dictionary& request);
  /// Asks the daemon to end the purge whose request carried this KELVANE_TOKEN. Done also when there is none.
  Result<Done> cancelPurge(const Value& token);
  /// What the services could free, in bytes: each service's ID to its figure, and KELVANE_TOTAL_AVAILABLE.
  /// Needs PURGEABLE_ENTITLEMENT, the itemised form ITEMIZED_PURGEABLE_ENTITLEMENT; the answer is the same.
  Result<Dictionary> purgeableSpace(const Dictionary& request);
  Result<Dictionary> itemizedPurgeableSpace(const Dictionary& request);
  /// The daemon's key-value store; it is on disk when this returns. Nothing as the value removes the key.
  Result<Done> setState(const Value& value, const std::string& key);
  /// Nothing when the key is not there.
  Result<Value> getState(const std::string& key);

  // --- the same, returning at once ---
  // The completion is called exactly once, on a thread of the library, one completion of this object at a
  // time. It may use the object, the blocking members included, but not destroy it; nothing may be thrown out
  // of it.

  void purge(const Dictionary& request, Completion<Dictionary> completion);
  void cancelPurge(const Value& token, Completion<Done> completion);
  void purgeableSpace(const Dictionary& request, Completion<Dictionary> completion);
  void itemizedPurgeableSpace(const Dictionary& request, Completion<Dictionary> completion);
  void setState(const Value& value, const std::string& key, Completion<Done> completion);
  void getState(const std::string& key, Completion<Value> completion);

 private:
  struct Calls;
  const std::shared_ptr<Calls> calls_;  // constant after construction; it guards itself
};

}  // namespace kelvane::client
