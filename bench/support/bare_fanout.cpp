#include "bench/support/bare_fanout.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <array>
#include <chrono>
#include <cstdlib>
#include <string>

#include "bench/support/service_host.h"

namespace kelvane::bench {
namespace {

int openThrough(int endpoint) {
  std::array<int, 2> pair{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()) != 0) std::abort();
  if (!sendDescriptor(endpoint, 0, pair[1])) std::abort();
  ::close(pair[1]);
  return pair[0];
}

struct Call {
  sd_bus* bus = nullptr;
  std::uint64_t given = 0;
  bool answered = false;
};

int readAnswer(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
  auto& call = *static_cast<Call*>(userdata);
  const char* key = nullptr;
  sd_bus_message_enter_container(message, 'a', "a{sv}");
  sd_bus_message_enter_container(message, 'a', "{sv}");
  if (sd_bus_message_read(message, "{sv}", &key, "t", &call.given) <= 0) std::abort();
  call.answered = true;
  return 1;
}

sd_bus_message* messageFor(sd_bus* bus, Request request, const std::string& volume, std::uint64_t amount) {
  sd_bus_message* message = nullptr;
  const char* const method = request == Request::purge ? "servicePurge" : "servicePurgeable";
  if (sd_bus_message_new_method_call(bus, &message, nullptr, "/com/orvel/kelvane/service",
                                     "com.orvel.KelvaneServiceProtocol", method) < 0) {
    std::abort();
  }
  const int r = request == Request::purge
                    ? sd_bus_message_append(message, "ia{sv}", 1, 4, "KELVANE_AMOUNT", "t", amount,
                                            "KELVANE_FREESPACE_BEGIN", "t", amount, "KELVANE_URGENCY", "x",
                                            std::int64_t{1}, "KELVANE_VOLUME", "s", volume.c_str())
                    : sd_bus_message_append(message, "ia{sv}", 3, 1, "KELVANE_VOLUME", "s", volume.c_str());
  if (r < 0) std::abort();
  return message;
}

void start(sd_bus*& bus, int socket) {
  sd_bus_new(&bus);
  sd_bus_set_fd(bus, socket, socket);
  sd_bus_negotiate_fds(bus, 1);
  if (sd_bus_start(bus) < 0) std::abort();
}

void ask(Call& call, Request request, const std::string& volume, std::uint64_t amount) {
  sd_bus_message* const message = messageFor(call.bus, request, volume, amount);
  if (sd_bus_call_async(call.bus, nullptr, message, readAnswer, &call, UINT64_MAX) < 0) std::abort();
  sd_bus_message_unref(message);
}

void watch(int epoll, int descriptor, std::size_t index) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = index;
  ::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event);
}

/// Calls `answer(index)` for each ready descriptor until it has said true `count` times.
template <class Answer>
void collect(int epoll, std::size_t count, Answer answer) {
  std::array<epoll_event, 64> events{};
  while (count > 0) {
    const int ready = ::epoll_wait(epoll, events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < ready; ++i) {
      if (answer(events[static_cast<std::size_t>(i)].data.u64)) --count;
    }
  }
}

}  // namespace

std::uint64_t nanosecondsNow() {
  return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch() /
                                    std::chrono::nanoseconds(1));
}

std::uint64_t bareBusFanout(const std::vector<int>& endpoints, Request request, const std::string& volume,
                            std::uint64_t amount) {
  const std::uint64_t begin = nanosecondsNow();
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  std::vector<Call> calls(endpoints.size());
  for (std::size_t i = 0; i < endpoints.size(); ++i) {
    const int socket = openThrough(endpoints[i]);
    start(calls[i].bus, socket);
    ask(calls[i], request, volume, amount);
    watch(epoll, socket, i);
  }
  collect(epoll, calls.size(), [&](std::size_t index) {
    Call& call = calls[index];
    int r = 1;
    while (r > 0 && !call.answered) r = sd_bus_process(call.bus, nullptr);
    if (!call.answered) return false;
    sd_bus_close_unref(call.bus);
    return true;
  });
  ::close(epoll);
  return nanosecondsNow() - begin;
}

int rawConnection(int endpoint) {
  const int socket = openThrough(endpoint);
  ::fcntl(socket, F_SETFL, ::fcntl(socket, F_GETFL) & ~O_NONBLOCK);
  return socket;
}

void rawRoundTrip(int socket) {
  const std::array<char, raw_request_bytes> request{};
  std::array<char, raw_reply_bytes> answer{};
  if (::send(socket, request.data(), request.size(), MSG_NOSIGNAL) < 0 ||
      ::recv(socket, answer.data(), answer.size(), MSG_WAITALL) != raw_reply_bytes) {
    std::abort();
  }
}

std::uint64_t rawFanout(const std::vector<int>& endpoints) {
  const std::uint64_t begin = nanosecondsNow();
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  std::vector<int> sockets(endpoints.size());
  const std::array<char, raw_request_bytes> request{};
  for (std::size_t i = 0; i < endpoints.size(); ++i) {
    sockets[i] = openThrough(endpoints[i]);
    if (::send(sockets[i], request.data(), request.size(), MSG_NOSIGNAL) < 0) std::abort();
    watch(epoll, sockets[i], i);
  }
  collect(epoll, sockets.size(), [&](std::size_t index) {
    std::array<char, raw_reply_bytes> answer{};
    const ssize_t length = ::recv(sockets[index], answer.data(), answer.size(), MSG_DONTWAIT);
    if (length == 0) std::abort();  // the service has gone
    if (length < 0) return false;
    ::close(sockets[index]);
    return true;
  });
  ::close(epoll);
  return nanosecondsNow() - begin;
}

}  // namespace kelvane::bench
