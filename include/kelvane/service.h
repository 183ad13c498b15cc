#pragma once

// Being a service: something that keeps data which can be thrown away and made again, and does so when the
// daemon asks.
//
//   class Thumbnails final : public kelvane::client::ServiceHandler {
//     std::optional<Purgeable> purgeable(const Request& request, const Cancellation&) override { ... }
//     std::uint64_t purge(const Request& request, const Cancellation& cancellation) override { ... }
//   };
//   Thumbnails thumbnails;
//   ServiceOptions options;
//   options.id = "com.example.thumbnails";
//   options.directories = {"/var/cache/thumbnails"};
//   auto service = kelvane::client::Service::start(thumbnails, options);
//
// A service that only has directories of files needs no handler: kelvane/directory_service.h.
//
// Volumes. A request is about one volume, and data on other volumes must be neither counted nor purged. So a
// service names the directories of its data, and the library finds out at each request which of them are on
// the volume at that moment. When none is, the library answers 0 without calling the handler.
//
// There are two kinds. A service that checks in finds the daemon at its socket, tells it an ID, and is called
// back through a socket pair. When the daemon goes, or drops it, it checks in again by itself: at once, then
// whenever the daemon's socket is made anew, and, in case that goes unnoticed, after pauses that double up to
// a minute. A declared service has a descriptor file; it serves a socket in the file system, which it makes
// or which the service manager hands over, and says nothing by itself.
//
// Threads. The handler is called on threads of the library, by these rules:
//   * purge and periodic: one at a time, in the order in which they were asked for; they may take long.
//   * purgeable and callback: one at a time, possibly while a purge runs. The daemon waits ten seconds.
//   * notify, cancelPurge and stateChanged: one at a time, possibly while the others run.
// The daemon's pings are answered by the library, whatever the handler is doing. Nothing may be thrown out of
// a handler.
//
// Lifetimes. The handler must outlive the Service. Destroying the Service cancels what runs, waits for the
// calls that run to return, and ends the rest: no call of the handler begins or goes on afterwards.
//
// Values. See kelvane/client.h. Amounts are bytes.

#include <sys/types.h>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelvane/cancellation.h"
#include "kelvane/export.h"
#include "kelvane/keys.h"
#include "kelvane/result.h"
#include "kelvane/value.h"

namespace kelvane::client {

/// What the daemon asks for.
struct Request {
  int urgency = 3;           // 1, only what nobody will miss, to 4, all that can be made again
  std::string volume;        // where it is mounted; data on other volumes must not be counted or purged
  std::uint64_t amount = 0;  // purge: the share asked of this service
  Dictionary info;           // the whole of it

  /// Those of ServiceOptions::directories that were on `volume` just now, as absolute paths without links.
  /// Never empty, unless the service is one for all volumes. A name may be given to another directory before
  /// it is used: isOnVolume (kelvane/volume.h) checks a directory that is open.
  std::vector<std::string> directories;
  /// The latest moment to answer, with what was done until then; the daemon ignores a late answer. A purge
  /// gets 70 % of its pass, counted from the pass's first request to this service, so a service that is
  /// asked again within a pass has the rest of that. A question gets 8 seconds, periodic maintenance 10.
  std::chrono::steady_clock::time_point answer_by = std::chrono::steady_clock::time_point::max();
};

/// What a service could free on the volume at the urgency asked.
struct Purgeable {
  std::uint64_t bytes = 0;
  bool opt_out = false;  // do not ask me again for a while
};

enum class ServiceState {
  waiting,     // for the daemon to be there, or for another process to give up the ID
  registered,  // checked in: the daemon has called back
  refused,     // the daemon is there and does not want it; tried again when the daemon is a new one
  serving,     // declared: the socket is open
};

class KELVANE_EXPORT ServiceHandler {
 public:
  virtual ~ServiceHandler();

  /// Nothing: cannot say (the daemon then counts 0). Once cancelled, nobody waits for the answer.
  virtual std::optional<Purgeable> purgeable(const Request& request, const Cancellation& cancellation) = 0;
  /// Frees `request.amount` bytes or what there is, and returns the bytes that really went. Once cancelled,
  /// it should return soon, with what it has freed until then.
  virtual std::uint64_t purge(const Request& request, const Cancellation& cancellation) = 0;
  /// Daily maintenance. Returns the bytes freed.
  virtual std::uint64_t periodic(const Request& /*request*/) { return 0; }
  /// The running purges have just been cancelled.
  virtual void cancelPurge() {}
  /// A notification that the service asked for.
  virtual void notify(const std::string& /*name*/, const Value& /*value*/) {}
  virtual std::optional<Dictionary> callback(const Dictionary& /*info*/) { return std::nullopt; }
  /// The service's state has changed. `reason` is for people, empty when all is well.
  virtual void stateChanged(ServiceState /*state*/, const std::string& /*reason*/) {}
};

struct ServiceOptions {
  std::string id;  // required; unique among the services of the device

  /// Required: the directories that hold the service's data. Each must exist when the service starts. Links
  /// in these paths are followed only then: a directory that is later removed, or replaced by a link, is on
  /// no volume.
  std::vector<std::string> directories;
  /// Instead of `directories`: the handler is called for every volume, and finds out by itself which data it
  /// has there (kelvane/volume.h).
  bool all_volumes = false;

  // What it does. A declared service says so in its descriptor file instead.
  bool purges = true;
  bool periodic = false;
  std::vector<std::string> notifications;

  std::string daemon_socket;  // empty: kelvane.sock in $RUNTIME_DIRECTORY, by default /run/kelvane

  // A declared service: at most one of the two.
  std::string socket_path;    // make the socket here; mode 0666, see `callers`
  std::string passed_socket;  // the name under which the service manager hands it over

  /// The users who may call this service. When not set: root, and the user who holds the daemon's socket. The
  /// kernel says who calls; others are closed before a byte is read.
  std::optional<std::vector<uid_t>> callers;
};

class KELVANE_EXPORT Service {
 public:
  /// Starts serving; does not wait for the daemon. Fails with Failure::badRequest on options that cannot be
  /// used, with the reason: no ID, neither directories nor `all_volumes`, a directory that cannot be found, a
  /// socket that cannot be made or was not handed over.
  static Result<std::unique_ptr<Service>> start(ServiceHandler& handler, const ServiceOptions& options);
  /// See Lifetimes above. Not to be called by the handler.
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Ending when idle, for a declared service that is started again by its next call. Any thread.
  //
  //   idle = every service's idleSince() is at least a minute ago
  //   if idle and pauseIfIdle() of every service: exit; else resume() them all
  //
  // No call is lost: a peer that connects while a service is paused waits in its socket, for `resume`, or for
  // the program that the service manager starts next.

  /// Since when no connection to the service is open and no call of the handler runs or waits; nothing while
  /// one does. A service that has not been called yet is idle since its start. One that checks in is never
  /// idle while it is registered: the daemon keeps a connection open.
  [[nodiscard]] std::optional<std::chrono::steady_clock::time_point> idleSince() const;
  /// Stops accepting connections if the service is idle and no connection waits to be accepted. True when the
  /// service is paused afterwards. Always false for a service that checks in.
  [[nodiscard]] bool pauseIfIdle();
  /// Accepts connections again, beginning with those that wait. Does nothing unless paused.
  void resume();

  /// Cancels the running purges, as the daemon does: they answer with what they freed until then. For a
  /// program that is about to end; later purges are not affected. Any thread.
  void cancelPurges();

 private:
  struct Parts;
  explicit Service(std::unique_ptr<Parts> parts);
  const std::unique_ptr<Parts> parts_;  // constant after construction
};

}  // namespace kelvane::client
