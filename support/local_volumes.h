#pragma once

// Which entries of the mount table are local volumes:
//
//  * writable mounts of a block device (the source is below /dev, or the device number is not an anonymous
//    one), of an overlay, btrfs or zfs, and of a tmpfs that is not at or below /dev, /proc, /run or /sys;
//  * never network file systems, those of a virtual machine's host, or those that a program serves (FUSE),
//  unless
//    the kernel says by the device number that they are on a block device, as "fuseblk.ntfs-3g" is: the name
//    of the source is whatever the program says;
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

/// Whether a program, a server or another machine is behind the file system, so that a question may never be
/// answered.
[[nodiscard]] bool mayNotAnswer(const MountEntry& mount);
/// Whether the file system says from the kernel's memory how much space it has. Others may wait for a
/// program, for a device (vfat counts its free clusters when it is first asked), or for the file system that
/// they lie on (overlay). A type that is not known counts among them.
[[nodiscard]] bool answersAtOnce(const MountEntry& mount);
/// Whether the path is one of the folders, or leads through one.
[[nodiscard]] bool isInOneOf(const std::vector<std::string>& folders, const std::string& path);

/// An absolute path without doubled and trailing slashes; empty for a path that is not absolute.
[[nodiscard]] std::string plainPath(const std::string& path);

}  // namespace kelvane
