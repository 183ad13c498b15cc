// Stands in for the service manager: socket_manager DIRECTORY NAME... -- PROGRAM
//
// Opens a socket DIRECTORY/com.orvel.kelvane.caches.NAME for each name. At the first connection, it starts
// the program with all of them; when that has ended, it waits for the next connection. Prints
// "started PID" and "ended STATUS". SERVICE_PRELOAD is preloaded into the program; with SERVICE_JOURNAL, its
// standard error counts as the journal's.

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int first_descriptor = 3;

int listenAt(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(socket, SOMAXCONN) != 0) {
    std::perror(path.c_str());
    std::exit(1);
  }
  return socket;
}

void setNumber(const char* name, unsigned long number) { ::setenv(name, std::to_string(number).c_str(), 1); }

void nameJournal() {
  struct stat log {};
  ::fstat(STDERR_FILENO, &log);
  ::setenv("JOURNAL_STREAM", (std::to_string(log.st_dev) + ":" + std::to_string(log.st_ino)).c_str(), 1);
}

[[noreturn]] void become(const char* program, const std::vector<pollfd>& sockets, const std::string& names) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  // Move them first, so that the target numbers are free.
  std::vector<int> copies;
  for (const pollfd& socket : sockets) copies.push_back(::fcntl(socket.fd, F_DUPFD_CLOEXEC, 100));
  for (std::size_t i = 0; i < copies.size(); ++i) ::dup2(copies[i], first_descriptor + static_cast<int>(i));
  setNumber("LISTEN_PID", static_cast<unsigned long>(::getpid()));
  setNumber("LISTEN_FDS", sockets.size());
  ::setenv("LISTEN_FDNAMES", names.c_str(), 1);
  if (std::getenv("SERVICE_JOURNAL") != nullptr) nameJournal();
  if (const char* const preloaded = std::getenv("SERVICE_PRELOAD")) ::setenv("LD_PRELOAD", preloaded, 1);
  ::execl(program, program, nullptr);
  std::perror(program);
  ::_exit(127);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<pollfd> sockets;
  std::string names;
  int i = 2;
  for (; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
    sockets.push_back({listenAt(std::string(argv[1]) + "/com.orvel.kelvane.caches." + argv[i]), POLLIN, 0});
    names += (names.empty() ? "" : ":") + std::string(argv[i]);
  }
  if (i + 1 >= argc) return 2;
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  std::printf("listening\n");
  while (::poll(sockets.data(), sockets.size(), -1) > 0) {
    const pid_t service = ::fork();
    if (service == 0) become(argv[i + 1], sockets, names);
    std::printf("started %d\n", service);
    int status = 0;
    ::waitpid(service, &status, 0);
    std::printf("ended %d\n", WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
  }
  return 1;
}
