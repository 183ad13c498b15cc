#include "bench/support/daemon_client.h"

#include <systemd/sd-bus.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/keys.h"

namespace kelvane::bench {
namespace {

[[noreturn]] void giveUp(const char* what) {
  std::fprintf(stderr, "the daemon failed: %s\n", what);
  std::exit(1);
}

void must(int result, const char* what) {
  if (result < 0) giveUp(what);
}

/// Reads the dictionary that was answered, if any, to its end; the number under `key`.
std::int64_t numberIn(sd_bus_message* answer, const char* key) {
  bool found = false;
  std::int64_t number = 0;
  must(sd_bus_message_enter_container(answer, 'a', "a{sv}"), "no answer");
  if (sd_bus_message_enter_container(answer, 'a', "{sv}") <= 0) giveUp("the request was refused");
  while (sd_bus_message_enter_container(answer, 'e', "sv") > 0) {
    const char* name = nullptr;
    const char* contents = nullptr;
    sd_bus_message_read(answer, "s", &name);
    sd_bus_message_peek_type(answer, nullptr, &contents);
    if (std::strcmp(contents, "t") == 0 || std::strcmp(contents, "x") == 0) {
      std::int64_t value = 0;
      sd_bus_message_read(answer, "v", contents, &value);
      if (std::strcmp(name, key) == 0) {
        number = value;
        found = true;
      }
    } else {
      sd_bus_message_skip(answer, "v");
    }
    sd_bus_message_exit_container(answer);
  }
  sd_bus_message_unref(answer);
  if (!found) giveUp(key);
  return number;
}

}  // namespace

DaemonClient::DaemonClient(const std::string& socket) : DaemonClient(socket, "") {}

DaemonClient::DaemonClient(const std::string& socket, const std::string& name) : name_(name) {
  must(sd_bus_new(&bus_), "no bus");
  must(sd_bus_set_address(bus_, ("unix:path=" + socket).c_str()), socket.c_str());
  must(sd_bus_negotiate_fds(bus_, 1), "no descriptors");
  if (!name_.empty()) must(sd_bus_set_bus_client(bus_, 1), "no message bus");
  must(sd_bus_start(bus_), socket.c_str());
}

DaemonClient::~DaemonClient() { sd_bus_close_unref(bus_); }

sd_bus_message* DaemonClient::message(const char* method) const {
  sd_bus_message* made = nullptr;
  must(sd_bus_message_new_method_call(bus_, &made, name_.empty() ? nullptr : name_.c_str(),
                                      "/com/orvel/kelvane", "com.orvel.KelvaneClientProtocol", method),
       method);
  return made;
}

sd_bus_message* DaemonClient::call(sd_bus_message* message) const {
  sd_bus_error error{nullptr, nullptr, 0};
  sd_bus_message* answer = nullptr;
  if (sd_bus_call(bus_, message, UINT64_MAX, &error, &answer) < 0) giveUp(error.message);
  sd_bus_message_unref(message);
  return answer;
}

void DaemonClient::checkIn(const std::string& ID, int endpoint) {
  sd_bus_message* const request = message("clientCheckin");
  must(sd_bus_message_append(request, "sha{sv}", ID.c_str(), endpoint, 1, service_kind_purge, "b", 1),
       "check-in");
  sd_bus_message_unref(call(request));
}

std::uint64_t DaemonClient::purge(const std::string& volume, std::uint64_t amount) {
  sd_bus_message* const request = message("clientPurge");
  must(sd_bus_message_append(request, "a{sv}", 3, KELVANE_VOLUME, "s", volume.c_str(), KELVANE_AMOUNT, "t",
                             amount, KELVANE_URGENCY, "x", std::int64_t{1}),
       "purge");
  return static_cast<std::uint64_t>(numberIn(call(request), KELVANE_AMOUNT));
}

std::int64_t DaemonClient::purgeableSpace(const std::string& volume) {
  sd_bus_message* const request = message("clientPurgeableSpace");
  must(sd_bus_message_append(request, "a{sv}", 1, KELVANE_VOLUME, "s", volume.c_str()), "question");
  return numberIn(call(request), KELVANE_TOTAL_AVAILABLE);
}

void DaemonClient::setState(const std::string& value, const std::string& key) {
  sd_bus_message* const request = message("clientSetState");
  must(sd_bus_message_append(request, "avs", 1, "s", value.c_str(), key.c_str()), "state");
  sd_bus_message_unref(call(request));
}

void DaemonClient::removeState(const std::string& key) {
  sd_bus_message* const request = message("clientSetState");
  must(sd_bus_message_append(request, "avs", 0, key.c_str()), "state");
  sd_bus_message_unref(call(request));
}

std::string DaemonClient::state(const std::string& key) {
  sd_bus_message* const request = message("clientGetState");
  must(sd_bus_message_append(request, "v", "s", key.c_str()), "state");
  sd_bus_message* const answer = call(request);
  const char* value = nullptr;
  must(sd_bus_message_read(answer, "av", 1, "s", &value), "state");
  std::string copy = value;
  sd_bus_message_unref(answer);
  return copy;
}

}  // namespace kelvane::bench
