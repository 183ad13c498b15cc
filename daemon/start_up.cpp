#include "daemon/start_up.h"

#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "common/keys.h"
#include "operations/timebase.h"
#include "platform/host/service_manager.h"
#include "platform/xpc/transaction.h"
#include "support/log.h"

namespace kelvane {
namespace {

constexpr const char* selector = "main";

void takeTimebase(const StartUpFunctions& functions) {
  mach_timebase_info_data_t info{};
  if (functions.timebase_info(&info) != KERN_SUCCESS) {
    KVLog(3, "%s Failed to get timebase info\n", selector);  // elapsed times will be 0
    return;
  }
  gTimebaseConversion = static_cast<double>(info.numer) / static_cast<double>(info.denom);
  KVLog(5, "%s timebaseInfo:  %u / %u, gTimebaseConversion: %f", selector, info.numer, info.denom,
        gTimebaseConversion);
}

void installHandlers(const std::shared_ptr<Kelvane>& kelvane) {
  xpc_activity_register(daily_activity, XPC_ACTIVITY_CHECK_IN, [kelvane](const xpc_activity_t& activity) {
    handleDailyActivity(activity, kelvane);
  });
  xpc_set_event_stream_handler(
      vfs_event_stream, dispatch_get_global_queue(0, 0), [kelvane](const Dictionary& event, Block handled) {
        kelvane->handleVFSStreamXPCEvent(
            event, [transaction = std::make_unique<Transaction>(), handled = std::move(handled)]() mutable {
              transaction.reset();
              handled();
            });
      });
  std::signal(SIGTERM, sigterm_handler);
}

void announce(const StartUpFunctions& functions) {
  if (functions.notify_post(launched_notification) != 0) {
    const int error = errno;
    KVLog(3, "%s notify_post failed: %s", selector, std::strerror(error));
  }
  notifyReady();
}

}  // namespace

bool startUp(const StartUpFunctions& functions) {
  const Transaction transaction;
  takeTimebase(functions);
  const std::shared_ptr<Kelvane> kelvane = functions.shared_kelvane();
  if (!kelvane->isListening()) return false;
  installHandlers(kelvane);
  announce(functions);
  KVLog(5, "%s Kelvane, open for business!", selector);
  return true;
}

void handleDailyActivity(const xpc_activity_t& activity, const std::shared_ptr<Kelvane>& kelvane) {
  const Transaction transaction;
  if (xpc_activity_get_state(activity) != XPC_ACTIVITY_STATE_RUN) return;
  dispatch_sync(dispatch_get_global_queue(0, 0), [&] {
    sweepVolumes(getLocalVolumes(), [&](const Dictionary& info) { kelvane->performPeriodicsWithInfo(info); });
  });
}

void sweepVolumes(const std::vector<std::string>& volumes,
                  const std::function<void(const Dictionary& info)>& perform) {
  for (const std::string& volume : volumes) perform(Dictionary{{KELVANE_VOLUME, volume}});
}

void sigterm_handler(int /*signal*/) { ::_exit(0); }

}  // namespace kelvane
