// A service with a handler written by hand, for tests: it counts and purges the files in the directories that
// each request is about, whatever their age.
//
//   handler_program ID SOCKET DIRECTORY...
//
// Prints "registered", and "asked VOLUME" for each purge that reaches the handler.

#include <unistd.h>
#include <cstdio>

#include "kelvane/folder_purge.h"
#include "kelvane/service.h"

namespace kelvane::tests {
namespace {

using client::Cancellation;
using client::FolderPurgeOptions;
using client::Purgeable;
using client::Request;
using client::Service;

void say(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

class Handler final : public client::ServiceHandler {
 public:
  std::optional<Purgeable> purgeable(const Request& request, const Cancellation& cancellation) override {
    Purgeable answer;
    for (const std::string& directory : request.directories)
      answer.bytes += client::purgeableBytes(directory, {}, cancellation);
    return answer;
  }
  std::uint64_t purge(const Request& request, const Cancellation& cancellation) override {
    say("asked " + request.volume);
    std::uint64_t freed = 0;
    for (const std::string& directory : request.directories) {
      FolderPurgeOptions options;
      options.amount = request.amount - freed;
      options.deadline = request.answer_by;
      freed += purgeFolder(directory, options, cancellation).freed;
      if (freed >= request.amount) break;
    }
    return freed;
  }
  void stateChanged(client::ServiceState state, const std::string& reason) override {
    say(state == client::ServiceState::registered ? "registered" : "not registered: " + reason);
  }
};

int serve(const std::vector<std::string>& arguments) {
  Handler handler;
  client::ServiceOptions options;
  options.id = arguments.at(0);
  options.daemon_socket = arguments.at(1);
  options.directories.assign(arguments.begin() + 2, arguments.end());
  const auto service = Service::start(handler, options);
  if (!service) {
    say(service.error().reason);
    return 2;
  }
  while (true) ::pause();
}

}  // namespace
}  // namespace kelvane::tests

int main(int argc, char** argv) {
  return kelvane::tests::serve(std::vector<std::string>(argv + 1, argv + argc));
}
