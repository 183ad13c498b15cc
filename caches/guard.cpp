#include "caches/guard.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <array>
#include <system_error>

#include "platform/dispatch/thread.h"

namespace kelvane::caches {
namespace {

constexpr int between_checks = 250;  // milliseconds

}  // namespace

Guard::Guard(int socket) : socket_(socket), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  try {
    thread_ = dispatch::startThread([this] { run(); });
  } catch (const std::system_error&) {
    // The deadline still holds, and the spawner can kill this process.
  }
}

Guard::~Guard() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(wake_, &one, sizeof one);
  if (thread_.joinable()) thread_.join();
  ::close(wake_);
}

client::Cancellation Guard::watch(const Signs* signs) {
  const std::lock_guard lock(mutex_);
  signs_ = signs;
  flag_ = std::make_shared<std::atomic<bool>>(cancelled_.load());
  return client::Cancellation(flag_);
}

void Guard::run() {
  std::array<pollfd, 2> watched{{{wake_, POLLIN, 0}, {socket_, POLLIN | POLLRDHUP, 0}}};
  while (watched[0].revents == 0) {
    ::poll(watched.data(), watched.size(), between_checks);
    const std::lock_guard lock(mutex_);
    if (watched[1].revents != 0) {
      cancelled_ = true;
      watched[1].fd = -1;
      watched[1].revents = 0;
    }
    if (flag_ && (cancelled_ || (signs_ != nullptr && !signs_->now().empty()))) *flag_ = true;
  }
}

}  // namespace kelvane::caches
