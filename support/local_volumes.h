#pragma once

// Which entries of the mount table are local volumes:
//
//  * writable mounts of a block device (the source is below /dev, or the device number is not an anonymous
//    one), of an overlay, btrfs or zfs, and of a tmpfs that is not at or below /dev, /proc, /run or /sys;
//  * never network file systems, file systems that a program serves (unless on a block device of its own), or
//    those of a virtual machine's host;
//  * of several mounts at one path the last, which hides the others;
//  * none whose path is not UTF-8, since no message could name it;
//  * of several mounts of one device the one that shows the whole file system (its root is "/"), and of
//    several such, or when none does, the one with the shortest path; the first of equals.

#include <string>
#include <vector>

#include "support/volumes.h"

namespace kelvane {

/// In the order of the table.
[[nodiscard]] std::vector<MountEntry> localVolumesAmong(const std::vector<MountEntry>& mounts);

/// Where a question may never be answered: at these mounts a program or a server is behind the file system.
[[nodiscard]] std::vector<std::string> foldersThatMayNotAnswer(const std::vector<MountEntry>& mounts);
/// Whether the path is one of the folders, or leads through one.
[[nodiscard]] bool isInOneOf(const std::vector<std::string>& folders, const std::string& path);

/// An absolute path without doubled and trailing slashes; empty for a path that is not absolute.
[[nodiscard]] std::string plainPath(const std::string& path);

}  // namespace kelvane
