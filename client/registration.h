#pragma once

// A service's registration with the daemon: checking in, noticing when it has lapsed, and checking in again.
//
// One attempt is one connection to the daemon and one anonymous listener, whose endpoint goes with the
// check-in. What can become of it:
//
//   no connection                  nobody is there: wait
//   the connection ends early      the daemon does not speak to this process: wait
//   a dictionary, after a call     registered. The daemon opens one connection at check-in, before it
//   answers,
//                                  and drops the service when that ends; the endpoint then closes
//   a dictionary, without one      the ID is still registered to another endpoint, so this one is not used;
//                                  it closes, and the attempt is made again
//   nothing, as the answer         the ID is that of a declared service: refused
//   the endpoint closes before     the daemon will not answer, which is how it says that this process may not
//   an answer                      be a service: refused
//
// When the daemon goes, its end of everything closes. To wait is to make the next attempt as soon as the
// daemon's socket is made anew, and also after a while, each time twice as long as before.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "client/handler_calls.h"
#include "client/socket_watcher.h"
#include "kelvane/service.h"
#include "platform/dispatch/queue.h"
#include "platform/dispatch/source.h"
#include "platform/xpc/connection.h"
#include "platform/xpc/listener.h"

namespace kelvane::client {

class Registration final : public std::enable_shared_from_this<Registration> {
 public:
  Registration(std::shared_ptr<HandlerCalls> calls, const ServiceOptions& options);
  void start();
  /// Nothing is reported or accepted any more when this returns.
  void end();

 private:
  enum class Phase { waiting, asking, registered, refused, ended };
  using Attempt = std::uint64_t;

  // All on queue_.
  void attempt();
  void listen(Attempt attempt);
  void checkIn(Attempt attempt);
  void answered(Attempt attempt, const std::optional<Dictionary>& answer);
  void endpointClosed(Attempt attempt);
  void refused(Attempt attempt, const std::string& reason);
  void daemonGone(Attempt attempt, bool established);
  void socketAppeared();
  void wait(ServiceState state, const std::string& reason);
  void report(ServiceState state, const std::string& reason);
  void drop();

  /// A block that runs `call` on queue_, as long as this lives.
  template <class F>
  Block later(F call);

  // Constant.
  const std::shared_ptr<HandlerCalls> calls_;
  const std::string id_;
  const Dictionary info_;
  const std::string socket_;
  const std::optional<std::vector<uid_t>> callers_;
  const dispatch_queue_t queue_ = dispatch_queue_create("com.orvel.kelvane_service_registration");

  // Only on queue_.
  Phase phase_ = Phase::waiting;
  Attempt current_ = 0;
  std::shared_ptr<xpc::Connection> daemon_;
  std::shared_ptr<xpc::Listener> listener_;
  std::shared_ptr<std::atomic<bool>> called_back_;  // set on any thread
  std::optional<SocketWatcher> watcher_;
  bool appeared_meanwhile_ = false;  // the socket appeared during the current attempt
  Timer timer_;
  std::int64_t pause_ = 0;  // nanoseconds, before the next attempt
  std::uint64_t registered_at_ = 0;
  std::optional<std::pair<ServiceState, std::string>> reported_;
};

}  // namespace kelvane::client
