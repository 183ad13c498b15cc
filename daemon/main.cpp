#include <string>

#include "daemon/low_disk.h"
#include "daemon/process.h"
#include "daemon/start_up.h"
#include "daemon/volume_watcher.h"
#include "daemon/watchdog.h"
#include "platform/dispatch/queue.h"
#include "platform/xpc/launch.h"
#include "support/paths.h"

int main(int argc, char** argv) {
  using namespace kelvane;
  if (const auto status = answerCommandLine(argc, argv)) return *status;
  if (const auto problem = takeSpaceThresholds()) return refuseToStart(*problem);
  if (const auto failure = makeDirectories()) return refuseToStart(*failure);
  settleProcess();

  std::string reason;
  const std::string launch_path = runtimeDirectory() + "/launch.sock";
  const auto launch_socket = xpc::serveLaunchSocket(launch_path, reason);
  if (launch_socket == nullptr) return refuseToStart("cannot serve " + launch_path + ": " + reason);

  if (!startUp())
    return refuseToStart("cannot serve " + runtimeDirectory() + "/kelvane.sock; is another one running?");
  [[maybe_unused]] const auto watcher = VolumeWatcher::start(postVolumeEvent);
  [[maybe_unused]] const auto watchdog = Watchdog::over(Kelvane::sharedKelvane()->collection_queue());
  dispatch_main();
}
