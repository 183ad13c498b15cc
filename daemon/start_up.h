#pragma once

// From an empty process to one that serves: the host clock's factor, the central object, the handlers of the
// daily activity, the file-system events and SIGTERM, and the announcement that all this is done.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "daemon/kelvane.h"
#include "platform/host/notify.h"
#include "platform/host/time.h"
#include "platform/xpc/launch.h"
#include "support/volumes.h"

namespace kelvane {

inline constexpr const char* daily_activity = "com.orvel.Kelvane.daily";
inline constexpr const char* vfs_event_stream = "com.orvel.dispatch.vfs";
inline constexpr const char* launched_notification = "com.orvel.kelvane.launched";

/// Functions that start-up calls and that can fail, or whose calls tests observe.
struct StartUpFunctions {
  std::function<kern_return_t(mach_timebase_info_data_t*)> timebase_info = mach_timebase_info;
  std::function<std::shared_ptr<Kelvane>()> shared_kelvane = Kelvane::sharedKelvane;
  std::function<std::uint32_t(const char*)> notify_post = kelvane::notify_post;
};

/// All steps but the last, which is `dispatch_main`. False, with nothing installed or announced, when the
/// listener cannot be opened: a daemon that nobody can reach must not claim to serve. On the main thread.
[[nodiscard]] bool startUp(const StartUpFunctions& functions = {});

/// The activity's handler: maintains the local volumes, one after the other, when the state is "run".
void handleDailyActivity(const xpc_activity_t& activity, const std::shared_ptr<Kelvane>& kelvane);
/// Hands each volume to the periodic maintenance, in order.
void sweepVolumes(const std::vector<std::string>& volumes,
                  const std::function<void(const Dictionary& info)>& perform);

/// Ends the process at once, with status 0: nothing is flushed, saved or cancelled.
extern "C" void sigterm_handler(int signal);

}  // namespace kelvane
