#include "bench/support/library_services.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "bench/support/placement.h"
#include "bench/support/service_host.h"
#include "kelvane/service.h"

namespace kelvane::bench {
namespace {

class Service final : public client::ServiceHandler {
 public:
  explicit Service(int registered) : registered_(registered) {}

  std::optional<client::Purgeable> purgeable(const client::Request& /*request*/,
                                             const client::Cancellation& /*cancellation*/) override {
    return client::Purgeable{purgeable_bytes};
  }
  std::uint64_t purge(const client::Request& request, const client::Cancellation& /*cancellation*/) override {
    return request.amount > 0 ? request.amount - 1 : 0;
  }
  void stateChanged(client::ServiceState state, const std::string& /*reason*/) override {
    if (state == client::ServiceState::registered) ::eventfd_write(registered_, 1);
  }

 private:
  const int registered_;
};

[[noreturn]] void serve(const std::string& daemon_socket, std::size_t count, int registered) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  Service handler(registered);
  std::vector<std::unique_ptr<client::Service>> services;
  for (std::size_t i = 0; i < count; ++i) {
    client::ServiceOptions options;
    options.id = serviceID(i);
    options.all_volumes = true;
    options.daemon_socket = daemon_socket;
    auto service = client::Service::start(handler, options);
    if (!service) std::_Exit(1);
    services.push_back(*std::move(service));
  }
  while (true) ::pause();
}

/// False when they have not all done so after a minute without another one.
bool awaitAll(int registered, std::size_t count) {
  constexpr int longest = 60'000;  // milliseconds
  pollfd said{registered, POLLIN, 0};
  for (std::size_t so_far = 0; so_far < count;) {
    eventfd_t more = 0;
    if (::poll(&said, 1, longest) != 1 || ::eventfd_read(registered, &more) != 0) return false;
    so_far += more;
  }
  return true;
}

}  // namespace

std::string serviceID(std::size_t number) { return "com.example.bench" + std::to_string(number); }

LibraryServices::LibraryServices(const std::string& daemon_socket, std::size_t count, bool apart) {
  const int registered = ::eventfd(0, EFD_CLOEXEC);
  process_ = ::fork();
  if (process_ == 0) {
    if (apart) place(0, Side::far);
    serve(daemon_socket, count, registered);
  }
  const bool all = awaitAll(registered, count);
  ::close(registered);
  if (all) return;
  std::fprintf(stderr, "%zu services did not check in at %s\n", count, daemon_socket.c_str());
  std::exit(1);
}

LibraryServices::~LibraryServices() {
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
}

}  // namespace kelvane::bench
