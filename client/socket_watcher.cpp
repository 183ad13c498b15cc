#include "client/socket_watcher.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <array>
#include <cstring>
#include <filesystem>
#include <utility>

#include "platform/foundation/file_descriptor.h"

namespace kelvane::client {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t watched_events =
    IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

fs::path absolutePath(const std::string& path) {
  std::error_code error;
  fs::path absolute = fs::absolute(path, error);
  return error ? fs::path(path) : absolute.lexically_normal();
}

bool isFolder(const fs::path& path) {
  std::error_code error;
  return fs::is_directory(path, error);
}

}  // namespace

/// Watches the deepest folder on the way to the socket that is there. After construction only the handler of
/// the source, whose runs do not overlap, touches it.
class SocketWatcher::Watch {
 public:
  Watch(const std::string& path, std::function<void()> appeared)
      : path_(absolutePath(path)),
        appeared_(std::move(appeared)),
        inotify_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (inotify_) follow();
  }

  [[nodiscard]] int descriptor() const { return inotify_.get(); }
  [[nodiscard]] bool works() const { return watch_ >= 0; }

  void handleEvents() {
    alignas(inotify_event) std::array<char, 4096> buffer{};
    bool told = false;
    for (;;) {
      const ssize_t length = ::read(inotify_.get(), buffer.data(), buffer.size());
      if (length <= 0) break;
      for (ssize_t at = 0; at < length;) {
        inotify_event event{};
        std::memcpy(&event, buffer.data() + at, sizeof event);
        told |= concerns(event, buffer.data() + at + sizeof event);
        at += static_cast<ssize_t>(sizeof event + event.len);
      }
    }
    if (!told) return;
    follow();
    appeared_();
  }

 private:
  [[nodiscard]] bool concerns(const inotify_event& event, const char* name) const {
    if ((event.mask & IN_Q_OVERFLOW) != 0) return true;
    if (event.wd != watch_) return false;
    return event.len == 0 || awaited_ == name;  // the folder itself, or what is next in it
  }

  /// What was made between looking and watching is not announced, hence the second look.
  void follow() {
    for (;;) {
      const fs::path folder = deepestFolder();
      watchFolder(folder);
      if (deepestFolder() == folder) return;
    }
  }

  [[nodiscard]] fs::path deepestFolder() const {
    fs::path folder = path_.parent_path();
    while (folder.has_relative_path() && !isFolder(folder)) folder = folder.parent_path();
    return folder;
  }

  void watchFolder(const fs::path& folder) {
    const int watch = ::inotify_add_watch(inotify_.get(), folder.c_str(), watched_events);
    if (watch != watch_ && watch_ >= 0) ::inotify_rm_watch(inotify_.get(), watch_);
    watch_ = watch;
    awaited_ = path_.lexically_relative(folder).begin()->string();
  }

  const fs::path path_;  // absolute
  const std::function<void()> appeared_;
  const FileDescriptor inotify_;
  int watch_ = -1;
  std::string awaited_;  // the next name on the way to the socket
};

SocketWatcher::SocketWatcher(const std::string& path, std::function<void()> appeared)
    : watch_(std::make_shared<Watch>(path, std::move(appeared))), works_(watch_->works()) {
  if (watch_->descriptor() < 0) return;
  source_ =
      EventSource(watch_->descriptor(), EPOLLIN, [watch = watch_](std::uint32_t) { watch->handleEvents(); });
}

SocketWatcher::~SocketWatcher() { source_.cancel(); }

}  // namespace kelvane::client
