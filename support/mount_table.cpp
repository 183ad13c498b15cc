#include "support/mount_table.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <libmount/libmount.h>
#include <poll.h>
#include <sys/sysmacros.h>
#include <memory>

namespace kelvane {
namespace {

struct Release {
  void operator()(libmnt_table* table) const { mnt_unref_table(table); }
  void operator()(libmnt_iter* iterator) const { mnt_free_iter(iterator); }
};
using Table = std::unique_ptr<libmnt_table, Release>;
using Iterator = std::unique_ptr<libmnt_iter, Release>;

std::string text(const char* maybe) { return maybe != nullptr ? maybe : ""; }

bool saysReadOnly(const char* options) {
  return options != nullptr && mnt_optstr_get_option(options, "ro", nullptr, nullptr) == 0;
}

MountEntry entry(libmnt_fs* mount) {
  MountEntry result;
  result.source = text(mnt_fs_get_source(mount));
  result.root = text(mnt_fs_get_root(mount));
  result.target = text(mnt_fs_get_target(mount));
  result.type = text(mnt_fs_get_fstype(mount));
  const dev_t device = mnt_fs_get_devno(mount);
  result.device = fmt::format("{}:{}", major(device), minor(device));
  result.id = static_cast<std::uint64_t>(mnt_fs_get_id(mount));
  // The mount and the file system below it each have a say.
  result.writable =
      !saysReadOnly(mnt_fs_get_vfs_options(mount)) && !saysReadOnly(mnt_fs_get_fs_options(mount));
  return result;
}

}  // namespace

std::optional<std::vector<MountEntry>> readMountTable(const std::string& path) {
  const Table table(mnt_new_table());
  const Iterator iterator(mnt_new_iter(MNT_ITER_FORWARD));
  if (!table || !iterator || mnt_table_parse_file(table.get(), path.c_str()) != 0) return std::nullopt;
  std::vector<MountEntry> result;
  libmnt_fs* mount = nullptr;
  while (mnt_table_next_fs(table.get(), iterator.get(), &mount) == 0) result.push_back(entry(mount));
  return result;
}

MountTableWatch::MountTableWatch() : table_(::open(mount_table_path, O_RDONLY | O_CLOEXEC)) {
  if (table_) generation_ = 1;
}

std::uint64_t MountTableWatch::generation() {
  const std::lock_guard lock(mutex_);
  pollfd poll{table_.get(), POLLPRI, 0};
  // The kernel tells each descriptor once of what changed since it was last asked.
  if (table_ && ::poll(&poll, 1, 0) > 0 && (poll.revents & (POLLPRI | POLLERR)) != 0) ++generation_;
  return generation_;
}

}  // namespace kelvane
