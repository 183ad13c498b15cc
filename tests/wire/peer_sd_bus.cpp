#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <array>
#include <cstring>

#include "tests/wire/peers.h"

namespace kelvane::wire::peers {

namespace {

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

int answer(sd_bus_message* call, void*, sd_bus_error*) {
  const char* text = nullptr;
  if (sd_bus_message_read(call, "s", &text) < 0) return -EINVAL;
  if (sd_bus_message_is_method_call(call, "a.b", "Write") > 0) {
    int descriptor = -1;
    if (sd_bus_message_read(call, "h", &descriptor) < 0 || ::write(descriptor, "x", 1) != 1) return -EINVAL;
  }
  return sd_bus_reply_method_return(call, "s", text);
}

void serve(int socket) {
  sd_bus* bus = nullptr;
  sd_id128_t id{};
  if (sd_id128_randomize(&id) < 0 || sd_bus_new(&bus) < 0) return;
  sd_bus_set_fd(bus, socket, socket);
  sd_bus_set_server(bus, 1, id);
  sd_bus_negotiate_fds(bus, 1);
  sd_bus_add_filter(bus, nullptr, answer, nullptr);
  int result = sd_bus_start(bus);
  while (result >= 0) {
    result = sd_bus_process(bus, nullptr);
    if (result == 0) result = sd_bus_wait(bus, UINT64_MAX);
  }
  sd_bus_close_unref(bus);
}

bool answers(sd_bus* bus, const char* member, const char* text, int descriptor) {
  sd_bus_message* reply = nullptr;
  const int result =
      descriptor < 0
          ? sd_bus_call_method(bus, nullptr, "/a", "a.b", member, nullptr, &reply, "s", text)
          : sd_bus_call_method(bus, nullptr, "/a", "a.b", member, nullptr, &reply, "sh", text, descriptor);
  const char* answered = nullptr;
  const bool right =
      result >= 0 && sd_bus_message_read(reply, "s", &answered) > 0 && std::strcmp(answered, text) == 0;
  sd_bus_message_unref(reply);
  return right;
}

}  // namespace

void serveWithSdBus(const std::string& path) {
  const int listening = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = addressOf(path);
  if (::bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return;
  if (::listen(listening, 10) != 0) return;
  for (;;) {
    const int socket = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket >= 0) serve(socket);
  }
}

bool callWithSdBus(const std::string& path) {
  sd_bus* bus = nullptr;
  if (sd_bus_new(&bus) < 0) return false;
  sd_bus_set_address(bus, ("unix:path=" + path).c_str());
  sd_bus_negotiate_fds(bus, 1);
  std::array<int, 2> pipe{};
  bool right = sd_bus_start(bus) >= 0 && ::pipe2(pipe.data(), O_CLOEXEC) == 0;
  right = right && answers(bus, "Echo", "text", -1) && answers(bus, "Write", "with", pipe[1]);
  char c = 0;
  right = right && ::read(pipe[0], &c, 1) == 1 && c == 'x';
  sd_bus_close_unref(bus);
  return right;
}

}  // namespace kelvane::wire::peers
