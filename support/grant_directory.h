#pragma once

// Opens a directory of grants. What it holds is believed only when nobody but root and this process's user
// decides what is in it. So the directory and the one that holds it must be owned by root or this process's
// user, and must not be writable by their group or by others: who can write a directory can replace each file
// in it, and who can write its parent can replace the directory. Further up are /etc and /usr/lib; who can
// write those decides who root is, so nothing would be gained by a check. The directory itself must not be a
// symbolic link.
//
// What is checked is what was opened, and its files are opened in it, not by a path that may lead elsewhere a
// moment later.

#include <string>
#include <vector>

#include "platform/foundation/file_descriptor.h"

namespace kelvane {

struct GrantDirectory {
  FileDescriptor directory;        // none: it is missing, or there is a problem
  std::vector<std::string> files;  // the names of its *.plist, sorted
  std::string problem;             // why nothing in it counts; empty for none
};

[[nodiscard]] GrantDirectory openGrantDirectory(const std::string& path);

}  // namespace kelvane
