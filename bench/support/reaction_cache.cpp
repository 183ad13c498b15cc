#include "bench/support/reaction_cache.h"

#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>

#include "bench/support/bare_fanout.h"
#include "kelvane/service.h"

namespace kelvane::bench {
namespace {

class Cache final : public client::ServiceHandler {
 public:
  Cache(std::string folder, CacheReport& report, int registered)
      : folder_(std::move(folder)), report_(report), registered_(registered) {}

  std::optional<client::Purgeable> purgeable(const client::Request& /*request*/,
                                             const client::Cancellation& /*cancellation*/) override {
    return std::nullopt;
  }
  std::uint64_t purge(const client::Request& request, const client::Cancellation& /*cancellation*/) override {
    std::uint64_t none = 0;
    report_.first_request_at.compare_exchange_strong(none, nanosecondsNow());
    std::uint64_t freed = 0;
    std::error_code gone;
    for (const auto& entry : std::filesystem::directory_iterator(folder_, gone)) {
      if (freed >= request.amount) break;
      const std::uint64_t size = entry.file_size(gone);
      if (std::filesystem::remove(entry.path(), gone)) freed += size;
    }
    report_.bytes_freed += freed;
    return freed;
  }
  void stateChanged(client::ServiceState state, const std::string& /*reason*/) override {
    if (state == client::ServiceState::registered) ::eventfd_write(registered_, 1);
  }

 private:
  const std::string folder_;
  CacheReport& report_;
  const int registered_;
};

[[noreturn]] void serve(const std::string& ID, const std::string& folder, const std::string& daemon_socket,
                        CacheReport& report, int registered) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  Cache cache(folder, report, registered);
  client::ServiceOptions options;
  options.id = ID;
  options.directories = {folder};
  options.daemon_socket = daemon_socket;
  [[maybe_unused]] const auto service = client::Service::start(cache, options);
  while (true) ::pause();
}

}  // namespace

CacheProcess::CacheProcess(const std::string& ID, const std::string& folder,
                           const std::string& daemon_socket) {
  void* const memory =
      ::mmap(nullptr, sizeof(CacheReport), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  report_ = new (memory) CacheReport{};
  const int registered = ::eventfd(0, EFD_CLOEXEC);
  process_ = ::fork();
  if (process_ == 0) serve(ID, folder, daemon_socket, *report_, registered);
  eventfd_t once = 0;
  ::eventfd_read(registered, &once);
  ::close(registered);
}

CacheProcess::~CacheProcess() {
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
  ::munmap(report_, sizeof(CacheReport));
}

}  // namespace kelvane::bench
