#include "caches/spawner.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "caches/report.h"
#include "caches/worker.h"

namespace kelvane::caches {
namespace {

/// Including those that were killed and have not ended.
constexpr std::size_t most_workers = 256;
constexpr int control_descriptor = 3;

struct Order {
  enum class Kind : std::uint64_t { start, kill };
  Kind kind;
  std::uint64_t worker;
};

constexpr std::size_t longest_order = sizeof(Order) + Job::longest_message;

bool sendOrder(int control, const Order& order, const std::string& job, int socket) {
  iovec parts[] = {{const_cast<Order*>(&order), sizeof order}, {const_cast<char*>(job.data()), job.size()}};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof socket)> space{};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  if (socket >= 0) {
    message.msg_control = space.data();
    message.msg_controllen = space.size();
    cmsghdr* const rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof socket);
    std::memcpy(CMSG_DATA(rights), &socket, sizeof socket);
  }
  ssize_t sent = -1;
  do {
    sent = ::sendmsg(control, &message, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent >= 0;
}

/// The spawner process itself. One thread.
class SpawnerProcess {
 public:
  SpawnerProcess(std::vector<Definition> definitions, WorkerSettings settings)
      : definitions_(std::move(definitions)), settings_(std::move(settings)) {}

  /// Runs until the main process closes its end.
  void run() {
    while (true) {
      std::vector<pollfd> watched = {{control_descriptor, POLLIN, 0}};
      for (const Child& child : children_) watched.push_back({child.process.get(), POLLIN, 0});
      if (::poll(watched.data(), watched.size(), -1) < 0) continue;
      std::erase_if(children_, [](const Child& child) { return hasEnded(child); });
      if (watched[0].revents != 0 && !obey()) break;
    }
    for (const Child& child : children_) killNow(child);
  }

 private:
  struct Child {
    std::uint64_t number = 0;
    FileDescriptor process;  // a pidfd
  };

  static bool hasEnded(const Child& child) {
    siginfo_t information{};
    const auto id = static_cast<id_t>(child.process.get());
    return ::waitid(static_cast<idtype_t>(P_PIDFD), id, &information, WEXITED | WNOHANG) == 0 &&
           information.si_pid != 0;
  }

  static void killNow(const Child& child) {
    ::syscall(SYS_pidfd_send_signal, child.process.get(), SIGKILL, nullptr, 0);
  }

  /// False when the main process has gone.
  bool obey() {
    buffer_.resize(longest_order);
    iovec part{buffer_.data(), buffer_.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> space{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = space.data();
    message.msg_controllen = space.size();
    const ssize_t length = ::recvmsg(control_descriptor, &message, MSG_CMSG_CLOEXEC);
    if (length <= 0) return length < 0 && errno == EINTR;
    FileDescriptor socket = received(message);
    Order order{};
    if (static_cast<std::size_t>(length) < sizeof order) return true;
    std::memcpy(&order, buffer_.data(), sizeof order);
    if (order.kind == Order::Kind::kill) {
      for (const Child& child : children_) {
        if (child.number == order.worker) killNow(child);
      }
      return true;
    }
    const std::optional<Job> job =
        decodeJob(buffer_.substr(sizeof order, static_cast<std::size_t>(length) - sizeof order));
    if (job && socket) start(order.worker, *job, std::move(socket));
    return true;
  }

  static FileDescriptor received(msghdr& message) {
    cmsghdr* const rights = CMSG_FIRSTHDR(&message);
    int socket = -1;
    if (rights != nullptr && rights->cmsg_level == SOL_SOCKET && rights->cmsg_type == SCM_RIGHTS) {
      std::memcpy(&socket, CMSG_DATA(rights), sizeof socket);
    }
    return FileDescriptor(socket);
  }

  void start(std::uint64_t number, const Job& job, FileDescriptor socket) {
    if (children_.size() >= most_workers) {
      return ReportWriter(socket.get()).end(false, "too many earlier workers have not ended");
    }
    const pid_t own = ::getpid();
    const pid_t process = ::fork();
    if (process == 0) runWorker(definitions_, settings_, job, std::move(socket), own);
    if (process < 0) {
      return ReportWriter(socket.get())
          .end(false, std::string("cannot start a worker: ") + std::strerror(errno));
    }
    FileDescriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    if (!handle) {  // it cannot be watched; its ID is still its own, because it has not been waited for
      ::kill(process, SIGKILL);
      ::waitpid(process, nullptr, 0);
      return;
    }
    children_.push_back({number, std::move(handle)});
  }

  const std::vector<Definition> definitions_;
  const WorkerSettings settings_;
  std::vector<Child> children_;
  std::string buffer_;
};

/// Signals that end the service are for the main process; workers first report what they did.
void ignoreSignals() {
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGPIPE}) ::signal(signal, SIG_IGN);
  ::signal(SIGCHLD, SIG_DFL);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void runSpawner(std::vector<Definition> definitions, WorkerSettings settings, int control,
                             pid_t main_process) noexcept {
  ignoreSignals();
  ::prctl(PR_SET_NAME, "caches-spawner");
  const bool is_orphan = ::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != main_process;
  if (is_orphan || (control != control_descriptor && ::dup2(control, control_descriptor) < 0) ||
      ::close_range(control_descriptor + 1, ~0U, 0) != 0) {
    ::_exit(EXIT_FAILURE);
  }
  SpawnerProcess(std::move(definitions), std::move(settings)).run();
  ::_exit(EXIT_SUCCESS);
}

}  // namespace

std::unique_ptr<Spawner> Spawner::start(std::vector<Definition> definitions, WorkerSettings settings) {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) return nullptr;
  FileDescriptor own(ends[0]);
  const FileDescriptor other(ends[1]);
  const pid_t main_process = ::getpid();
  const pid_t process = ::fork();
  if (process < 0) return nullptr;
  if (process == 0) runSpawner(std::move(definitions), std::move(settings), other.get(), main_process);
  return std::unique_ptr<Spawner>(new Spawner(std::move(own), process));
}

Spawner::~Spawner() {
  control_.reset();
  while (::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

std::optional<Spawner::Worker> Spawner::startWorker(const Job& job) {
  const std::string text = encode(job);
  std::array<int, 2> ends{};
  if (text.empty()) {
    errno = E2BIG;
    return std::nullopt;
  }
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) return std::nullopt;
  Worker worker{0, FileDescriptor(ends[0])};
  const FileDescriptor other(ends[1]);
  const std::lock_guard lock(mutex_);
  worker.number = ++last_;
  if (!sendOrder(control_.get(), {Order::Kind::start, worker.number}, text, other.get())) return std::nullopt;
  return worker;
}

void Spawner::kill(std::uint64_t worker) { sendOrder(control_.get(), {Order::Kind::kill, worker}, {}, -1); }

}  // namespace kelvane::caches
