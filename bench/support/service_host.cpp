#include "bench/support/service_host.h"

#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kelvane::bench {

bool sendDescriptor(int socket, char byte, int descriptor) {
  iovec data{&byte, 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  return ::sendmsg(socket, &message, MSG_NOSIGNAL) == 1;
}

int receiveDescriptor(int socket, char& byte) {
  iovec data{&byte, 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  errno = 0;  // stays so at the end of the stream
  if (::recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC) <= 0) return -1;
  const cmsghdr* const header = CMSG_FIRSTHDR(&message);
  if (header == nullptr) return -1;
  int descriptor = -1;
  std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
  return descriptor;
}

namespace {

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) std::abort();
  path.copy(address.sun_path, path.size());
  return address;
}

template <class Connect>
int socketFor(const std::string& path, Connect connect) {
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = addressOf(path);
  if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return socket;
  std::perror(path.c_str());
  std::exit(1);
}

}  // namespace

int listeningAt(const std::string& path) {
  const int socket = socketFor(path, ::bind);
  if (::listen(socket, SOMAXCONN) != 0) std::abort();
  return socket;
}

int connectedTo(const std::string& path) { return socketFor(path, ::connect); }

namespace {

constexpr char listener_kind = 'l';
constexpr char bus_kind = 'b';

/// The amount that the request's dictionary asks for.
std::uint64_t amountAsked(sd_bus_message* message) {
  std::int32_t urgency = 0;
  std::uint64_t amount = 0;
  sd_bus_message_read(message, "i", &urgency);
  sd_bus_message_enter_container(message, 'a', "{sv}");
  while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
    const char* key = nullptr;
    sd_bus_message_read(message, "s", &key);
    if (std::strcmp(key, "KELVANE_AMOUNT") == 0) {
      sd_bus_message_read(message, "v", "t", &amount);
    } else {
      sd_bus_message_skip(message, "v");
    }
    sd_bus_message_exit_container(message);
  }
  return amount;
}

/// What the daemon says of so many services, the number being the volume's name.
int answerForServices(sd_bus_message* message) {
  const char* key = nullptr;
  const char* volume = "";
  sd_bus_message_enter_container(message, 'a', "{sv}");
  sd_bus_message_read(message, "{sv}", &key, "s", &volume);
  const std::uint64_t services = std::stoull(volume);
  sd_bus_message* answer = nullptr;
  sd_bus_message_new_method_return(message, &answer);
  sd_bus_message_open_container(answer, 'a', "a{sv}");
  sd_bus_message_open_container(answer, 'a', "{sv}");
  for (std::uint64_t i = 0; i < services; ++i) {
    const std::string name = "com.example.bench" + std::to_string(i);
    sd_bus_message_append(answer, "{sv}", name.c_str(), "t", purgeable_bytes);
  }
  sd_bus_message_append(answer, "{sv}", "KELVANE_TOTAL_AVAILABLE", "x", services * purgeable_bytes);
  sd_bus_message_append(answer, "{sv}", "KELVANE_VOLUME", "s", volume);
  sd_bus_message_close_container(answer);
  sd_bus_message_close_container(answer);
  const int sent = sd_bus_send(nullptr, answer, nullptr);
  sd_bus_message_unref(answer);
  return sent;
}

int serve(sd_bus_message* message, void* /*userdata*/, sd_bus_error* /*error*/) {
  if (sd_bus_message_is_method_call(message, nullptr, "clientGetState") > 0) {
    return sd_bus_reply_method_return(message, "av", 1, "s", "value");
  }
  if (sd_bus_message_is_method_call(message, nullptr, "clientPurgeableSpace") > 0) {
    return answerForServices(message);
  }
  if (sd_bus_message_is_method_call(message, nullptr, "clientCheckin") > 0) {
    return sd_bus_reply_method_return(message, "aa{sv}", 0);
  }
  if (sd_bus_message_is_method_call(message, nullptr, "servicePurge") > 0) {
    const std::uint64_t amount = amountAsked(message);
    return sd_bus_reply_method_return(message, "aa{sv}", 1, 1, "KELVANE_AMOUNT", "t",
                                      amount > 0 ? amount - 1 : 0);
  }
  if (sd_bus_message_is_method_call(message, nullptr, "servicePurgeable") > 0) {
    return sd_bus_reply_method_return(message, "aa{sv}", 1, 1, "KELVANE_AMOUNT", "t", purgeable_bytes);
  }
  if (sd_bus_message_is_method_call(message, nullptr, "servicePing") > 0) {
    return sd_bus_reply_method_return(message, nullptr);
  }
  return 0;
}

/// One descriptor that the loop waits for.
struct Watched {
  enum class Kind { control, listener, dbus_endpoint, raw_endpoint, dbus, raw } kind;
  int descriptor;
  sd_bus* bus = nullptr;
};

class Loop {
 public:
  explicit Loop(int control) { watch(new Watched{Watched::Kind::control, control}); }

  void run() {
    std::array<epoll_event, 64> events{};
    for (;;) {
      const int count = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), -1);
      for (int i = 0; i < count; ++i)
        handle(static_cast<Watched*>(events[static_cast<std::size_t>(i)].data.ptr));
    }
  }

 private:
  void watch(Watched* watched) const {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = watched;
    ::epoll_ctl(epoll_, EPOLL_CTL_ADD, watched->descriptor, &event);
  }

  void handle(Watched* watched) {
    switch (watched->kind) {
      case Watched::Kind::control:
        return takeService(watched->descriptor);
      case Watched::Kind::listener:
        return startBus(::accept4(watched->descriptor, nullptr, nullptr, SOCK_CLOEXEC), false);
      case Watched::Kind::dbus_endpoint:
        return takeBus(watched->descriptor);
      case Watched::Kind::raw_endpoint:
        return takeRaw(watched->descriptor);
      case Watched::Kind::dbus:
        return serveBus(watched);
      case Watched::Kind::raw:
        return serveRaw(watched);
    }
  }

  void takeService(int control) {
    char speech = 0;
    const int endpoint = receiveDescriptor(control, speech);
    if (endpoint < 0) std::_Exit(0);  // whoever asked for the services is gone
    if (speech == bus_kind) {
      startBus(endpoint, true);
    } else {
      watch(new Watched{kindOf(speech), endpoint});
    }
    const char ready = 1;
    if (::send(control, &ready, 1, MSG_NOSIGNAL) != 1) std::_Exit(0);
  }

  static Watched::Kind kindOf(char speech) {
    if (speech == listener_kind) return Watched::Kind::listener;
    return speech == static_cast<char>(Speech::dbus) ? Watched::Kind::dbus_endpoint
                                                     : Watched::Kind::raw_endpoint;
  }

  void takeBus(int endpoint) {
    char byte = 0;
    const int socket = receiveDescriptor(endpoint, byte);
    if (socket < 0) return forgetEndpoint(endpoint);
    startBus(socket, false);
  }

  /// The other end is a peer, or a message bus.
  void startBus(int socket, bool is_bus) {
    auto* const watched = new Watched{Watched::Kind::dbus, socket};
    sd_bus_new(&watched->bus);
    sd_bus_set_fd(watched->bus, socket, socket);
    if (is_bus) {
      sd_bus_set_bus_client(watched->bus, 1);
    } else {
      sd_bus_set_server(watched->bus, 1, sd_id128_t{});
    }
    sd_bus_negotiate_fds(watched->bus, 1);
    sd_bus_add_filter(watched->bus, nullptr, serve, nullptr);
    if (sd_bus_start(watched->bus) < 0 || (is_bus && sd_bus_request_name(watched->bus, echo_name, 0) < 0)) {
      sd_bus_unref(watched->bus);
      delete watched;
      return;
    }
    watch(watched);
    serveBus(watched);
  }

  void takeRaw(int endpoint) {
    char byte = 0;
    const int socket = receiveDescriptor(endpoint, byte);
    if (socket < 0) return forgetEndpoint(endpoint);
    watch(new Watched{Watched::Kind::raw, socket});
  }

  void forgetEndpoint(int endpoint) const {
    if (errno == EAGAIN) return;
    ::epoll_ctl(epoll_, EPOLL_CTL_DEL, endpoint, nullptr);
    ::close(endpoint);
  }

  static void serveBus(Watched* watched) {
    int r = 1;
    while (r > 0) r = sd_bus_process(watched->bus, nullptr);
    if (r >= 0 && sd_bus_is_open(watched->bus) > 0) return;
    sd_bus_close_unref(watched->bus);
    delete watched;
  }

  static void serveRaw(Watched* watched) {
    std::array<char, raw_request_bytes> buffer{};
    const ssize_t length = ::recv(watched->descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (length > 0) {
      if (::send(watched->descriptor, buffer.data(), raw_reply_bytes, MSG_NOSIGNAL | MSG_DONTWAIT) > 0)
        return;
    } else if (errno == EAGAIN && length < 0) {
      return;
    }
    ::close(watched->descriptor);
    delete watched;
  }

  const int epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
};

}  // namespace

ServiceHost::ServiceHost() {
  std::array<int, 2> pair{};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()) != 0) std::abort();
  process_ = ::fork();
  if (process_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::close(pair[0]);
    Loop(pair[1]).run();
  }
  ::close(pair[1]);
  control_ = pair[0];
}

ServiceHost::~ServiceHost() {
  ::close(control_);
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
}

int ServiceHost::addService(Speech speech) {
  std::array<int, 2> pair{};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()) != 0) std::abort();
  give(static_cast<char>(speech), pair[1]);
  return pair[0];
}

void ServiceHost::standInAt(const std::string& path) { give(listener_kind, listeningAt(path)); }

void ServiceHost::standInOnBus(const std::string& bus_path) { give(bus_kind, connectedTo(bus_path)); }

void ServiceHost::give(char kind, int descriptor) const {
  char ready = 0;
  if (!sendDescriptor(control_, kind, descriptor) || ::recv(control_, &ready, 1, 0) != 1) std::abort();
  ::close(descriptor);
}

}  // namespace kelvane::bench
