#pragma once

#include <cstdint>
#include <string>

namespace kelvane {

/// Where notifications are kept; set once, before the first is posted.
void notify_set_directory(std::string directory);

/// Tells everyone who watches `name`: adds one to the number in the file of that name in the notification
/// directory, in place (to be watched with inotify, IN_MODIFY), creating directory and file where needed. 0
/// on success; otherwise not 0, with the reason in errno. A name with "/" is refused (EINVAL). Waits for no
/// other process, whatever locks it holds. Any thread; two processes that post one name may count it once.
std::uint32_t notify_post(const char* name);

}  // namespace kelvane
