#pragma once

#include <cstdint>
#include <string>

namespace kelvane {

/// Where notifications are kept; set once, before the first is posted.
void notify_set_directory(std::string directory);

/// Tells everyone who watches `name`: adds one to the number in the file of that name in the notification
/// directory (to be watched with inotify), creating directory and file where needed. 0 on success; otherwise
/// not 0, with the reason in errno. A name with "/" is refused (EINVAL).
std::uint32_t notify_post(const char* name);

}  // namespace kelvane
