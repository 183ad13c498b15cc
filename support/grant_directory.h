#pragma once

// Opens a directory of grants. Its files are trusted only if nobody but root and this process's user can
// change them. So the directory and the one that holds it must be owned by root or this process's user, and
// must not be writable by their group or by others: whoever can write a directory can replace each file in
// it, and whoever can write its parent can replace the directory. Further up are /etc and /usr/lib; whoever
// can write those can become root anyway, so checking them would gain nothing. The directory itself must not
// be a symbolic link.
//
// The checks use the opened directory, and its files are opened relative to it: a path could lead elsewhere a
// moment later.

#include <string>
#include <vector>

#include "platform/foundation/file_descriptor.h"

namespace kelvane {

struct GrantDirectory {
  FileDescriptor directory;        // empty if it is missing, or there is a problem
  std::vector<std::string> files;  // the names of its *.plist, sorted
  std::string problem;             // why it is ignored; empty if it is not
};

[[nodiscard]] GrantDirectory openGrantDirectory(const std::string& path);

}  // namespace kelvane
