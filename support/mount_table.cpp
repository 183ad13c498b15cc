// The kernel's mountinfo form, a mount on each line (proc_pid_mountinfo(5)):
//
//   36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw,errors=continue
//   id    device root target options fields... - type source options of the file system

#include "support/mount_table.h"

#include <fcntl.h>
#include <poll.h>
#include <charconv>
#include <fstream>
#include <string_view>

namespace kelvane {
namespace {

bool isOctal(char digit) { return digit >= '0' && digit <= '7'; }

/// Blanks, tabs, line ends and backslashes are written as a backslash and three octal digits.
std::string unescaped(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool escape = text[i] == '\\' && text.size() - i > 3 && isOctal(text[i + 1]) &&
                        isOctal(text[i + 2]) && isOctal(text[i + 3]);
    if (!escape) {
      result += text[i];
      continue;
    }
    result += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
    i += 3;
  }
  return result;
}

/// Takes what stands before the next separator; the rest stays in `text`.
std::string_view take(std::string_view& text, char separator) {
  const std::size_t end = text.find(separator);
  const std::string_view first = text.substr(0, end);
  text = end == text.npos ? std::string_view() : text.substr(end + 1);
  return first;
}

bool saysReadOnly(std::string_view options) {
  while (!options.empty()) {
    if (take(options, ',') == "ro") return true;
  }
  return false;
}

/// Nothing for a line of another form.
std::optional<MountEntry> mountIn(std::string_view line) {
  MountEntry mount;
  const std::string_view id = take(line, ' ');
  if (std::from_chars(id.data(), id.data() + id.size(), mount.id).ec != std::errc()) return std::nullopt;
  take(line, ' ');  // the parent's
  mount.device = take(line, ' ');
  mount.root = unescaped(take(line, ' '));
  mount.target = unescaped(take(line, ' '));
  const std::string_view options = take(line, ' ');
  while (!line.empty() && take(line, ' ') != "-") continue;
  mount.type = unescaped(take(line, ' '));
  mount.source = unescaped(take(line, ' '));
  // The mount and the file system below it each have a say.
  mount.writable = !saysReadOnly(options) && !saysReadOnly(line);
  if (mount.target.empty() || mount.type.empty()) return std::nullopt;
  return mount;
}

}  // namespace

std::optional<std::vector<MountEntry>> readMountTable(const std::string& path) {
  std::ifstream file(path);
  if (!file) return std::nullopt;
  std::vector<MountEntry> mounts;
  for (std::string line; std::getline(file, line);) {
    if (auto mount = mountIn(line)) mounts.push_back(*std::move(mount));
  }
  if (file.bad()) return std::nullopt;
  return mounts;
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
