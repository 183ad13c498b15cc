#pragma once

// Which entries of the mount table are local volumes:
//
//  * writable mounts of a block device (the source is below /dev, or the device number is not an anonymous
//    one), of an overlay, btrfs or zfs, and of a tmpfs that is not at or below /dev, /proc, /run or /sys;
//  * never network file systems, file systems of a virtual machine's host, or FUSE, unless the device number
//    shows that they are on a block device, as for "fuseblk.ntfs-3g". The name of the source proves nothing:
//    the program chooses it;
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

/// Whether this mount, when it is not hidden by another, is a local volume, or stands for one.
[[nodiscard]] bool isLocalVolume(const MountEntry& mount);

/// Whether a program, a server or another machine serves the file system, so that a request may never be
/// answered.
[[nodiscard]] bool mayNotAnswer(const MountEntry& mount);
/// Whether the kernel knows the file system's free space without waiting. Other types may wait for a program,
/// for a device (vfat counts its free clusters at the first request), or for the file system below (overlay).
/// Unknown types are treated like these.
[[nodiscard]] bool answersAtOnce(const MountEntry& mount);
/// Whether the path is one of the folders, or leads through one.
[[nodiscard]] bool isInOneOf(const std::vector<std::string>& folders, const std::string& path);

/// An absolute path without doubled and trailing slashes; empty for a path that is not absolute.
[[nodiscard]] std::string plainPath(const std::string& path);

}  // namespace kelvane
