#pragma once

#include <cstdint>
#include <string>

namespace kelvane {

/// Where notifications are kept; set once, before the first is posted.
void notify_set_directory(std::string directory);

/// Tells everyone who watches `name`: adds one to the number in the file of that name in the notification
/// directory, in place (to be watched with inotify, IN_MODIFY), creating directory and file where needed. 0
/// on success; otherwise not 0, with the reason in errno. A name with "/" is refused (EINVAL). Never waits
/// for another process, even if that holds a lock on the file. Any thread. If two processes post one name at
/// the same time, it may be counted once.
std::uint32_t notify_post(const char* name);

}  // namespace kelvane
