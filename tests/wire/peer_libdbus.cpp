#include <dbus/dbus.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "tests/wire/peers.h"

namespace kelvane::wire::peers {

namespace {

/// The loop of a process that serves.
struct Loop {
  std::vector<DBusWatch*> watches;
  std::vector<DBusConnection*> connections;

  static dbus_bool_t add(DBusWatch* watch, void* self) {
    static_cast<Loop*>(self)->watches.push_back(watch);
    return TRUE;
  }
  static void remove(DBusWatch* watch, void* self) { std::erase(static_cast<Loop*>(self)->watches, watch); }

  void turn() {
    std::vector<DBusWatch*> enabled;
    std::vector<pollfd> polled;
    for (DBusWatch* const watch : watches) {
      if (dbus_watch_get_enabled(watch) == FALSE) continue;
      const unsigned flags = dbus_watch_get_flags(watch);
      const int events = ((flags & DBUS_WATCH_READABLE) != 0 ? POLLIN : 0) |
                         ((flags & DBUS_WATCH_WRITABLE) != 0 ? POLLOUT : 0);
      enabled.push_back(watch);
      polled.push_back({dbus_watch_get_unix_fd(watch), static_cast<short>(events), 0});
    }
    ::poll(polled.data(), polled.size(), -1);
    for (std::size_t i = 0; i < polled.size(); ++i) {
      if (std::find(watches.begin(), watches.end(), enabled[i]) == watches.end()) continue;
      unsigned flags = (polled[i].revents & POLLIN) != 0 ? DBUS_WATCH_READABLE : 0;
      if ((polled[i].revents & POLLOUT) != 0) flags |= DBUS_WATCH_WRITABLE;
      if ((polled[i].revents & POLLHUP) != 0) flags |= DBUS_WATCH_HANGUP;
      if (flags != 0) dbus_watch_handle(enabled[i], flags);
    }
    for (DBusConnection* const connection : connections) {
      while (dbus_connection_dispatch(connection) == DBUS_DISPATCH_DATA_REMAINS) {
      }
    }
  }
};

DBusHandlerResult answer(DBusConnection* connection, DBusMessage* call, void*) {
  const char* text = nullptr;
  if (dbus_message_is_method_call(call, "a.b", "Write") != FALSE) {
    int descriptor = -1;
    if (dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_UNIX_FD, &descriptor,
                              DBUS_TYPE_INVALID) == FALSE ||
        ::write(descriptor, "x", 1) != 1) {
      return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    ::close(descriptor);
  } else if (dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) == FALSE) {
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  DBusMessage* const reply = dbus_message_new_method_return(call);
  dbus_message_append_args(reply, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  dbus_connection_send(connection, reply, nullptr);
  dbus_message_unref(reply);
  return DBUS_HANDLER_RESULT_HANDLED;
}

void accept(DBusServer*, DBusConnection* connection, void* loop) {
  dbus_connection_ref(connection);
  dbus_connection_set_exit_on_disconnect(connection, FALSE);
  dbus_connection_set_watch_functions(connection, Loop::add, Loop::remove, nullptr, loop, nullptr);
  dbus_connection_add_filter(connection, answer, nullptr, nullptr);
  static_cast<Loop*>(loop)->connections.push_back(connection);
}

bool answers(DBusConnection* connection, const char* member, const char* text, int descriptor) {
  DBusMessage* const call = dbus_message_new_method_call(nullptr, "/a", "a.b", member);
  dbus_message_append_args(call, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  if (descriptor >= 0) dbus_message_append_args(call, DBUS_TYPE_UNIX_FD, &descriptor, DBUS_TYPE_INVALID);
  DBusMessage* const reply = dbus_connection_send_with_reply_and_block(connection, call, 20'000, nullptr);
  dbus_message_unref(call);
  if (reply == nullptr) return false;
  const char* answered = nullptr;
  const bool right =
      dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &answered, DBUS_TYPE_INVALID) != FALSE &&
      std::strcmp(answered, text) == 0;
  dbus_message_unref(reply);
  return right;
}

}  // namespace

void serveWithLibdbus(const std::string& path) {
  Loop loop;
  DBusServer* const server = dbus_server_listen(("unix:path=" + path).c_str(), nullptr);
  if (server == nullptr) return;
  dbus_server_set_watch_functions(server, Loop::add, Loop::remove, nullptr, &loop, nullptr);
  dbus_server_set_new_connection_function(server, accept, &loop, nullptr);
  for (;;) loop.turn();
}

bool callWithLibdbus(const std::string& path) {
  DBusConnection* const connection = dbus_connection_open_private(("unix:path=" + path).c_str(), nullptr);
  if (connection == nullptr) return false;
  dbus_connection_set_exit_on_disconnect(connection, FALSE);
  std::array<int, 2> pipe{};
  bool right = ::pipe2(pipe.data(), O_CLOEXEC) == 0 && answers(connection, "Echo", "text", -1);
  right = right && dbus_connection_can_send_type(connection, DBUS_TYPE_UNIX_FD) != FALSE &&
          answers(connection, "Write", "with", pipe[1]);
  char c = 0;
  right = right && ::read(pipe[0], &c, 1) == 1 && c == 'x';
  dbus_connection_close(connection);
  dbus_connection_unref(connection);
  return right;
}

}  // namespace kelvane::wire::peers
