#pragma once

// What a service manager starts in this process: background activities and event streams. They are driven
// through the launch socket, a private D-Bus object: /com/orvel/launch, interface com.orvel.Launch.

#include <functional>
#include <memory>
#include <string>

#include "kelvane/value.h"
#include "platform/dispatch/block.h"
#include "platform/dispatch/queue.h"

namespace kelvane {

namespace xpc {
class Listener;

/// One occasion on which an activity's handler is called.
class Activity {
 public:
  explicit Activity(long state) : state_(state) {}
  [[nodiscard]] long state() const { return state_; }

 private:
  const long state_;
};

/// Serves the launch socket at `path` (mode 0600). Null, with the reason, when it cannot be made.
[[nodiscard]] std::shared_ptr<Listener> serveLaunchSocket(const std::string& path, std::string& reason);
}  // namespace xpc

using xpc_activity_t = std::shared_ptr<xpc::Activity>;
inline constexpr long XPC_ACTIVITY_STATE_CHECK_IN = 0;
inline constexpr long XPC_ACTIVITY_STATE_WAIT = 1;
inline constexpr long XPC_ACTIVITY_STATE_RUN = 2;

/// The criteria of an activity that is scheduled outside the program.
inline const Dictionary XPC_ACTIVITY_CHECK_IN{};

/// Registers a handler for the activity of that name, replacing an earlier one, and calls it once in the
/// check-in state, on the global queue. Later it is called in the run state for each request on the launch
/// socket. Runs do not overlap; a run is over when the handler returns.
void xpc_activity_register(const std::string& name, const Dictionary& criteria,
                           std::function<void(const xpc_activity_t&)> handler);
[[nodiscard]] long xpc_activity_get_state(const xpc_activity_t& activity);

/// Gets an event and a block to call once the event has been handled, possibly later and on any thread.
using EventHandler = std::function<void(const Dictionary& event, Block handled)>;
/// Registers a handler for the events of a stream, replacing an earlier one. It is called on `queue`.
void xpc_set_event_stream_handler(const std::string& stream, const dispatch_queue_t& queue,
                                  EventHandler handler);

/// Delivers an event as the launch socket does, and calls `handled` when the handler is done. False, without
/// calling `handled`, when the stream has no handler. Never blocks.
bool xpc_post_event(const std::string& stream, const Dictionary& event, Block handled);
/// The same for an activity's run.
bool xpc_run_activity(const std::string& name, Block over);

}  // namespace kelvane
