// A declared service made with libdbus: libdbus_service LISTEN-PATH. Each connection has a thread.

#include <dbus/dbus.h>
#include <poll.h>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

namespace {

void appendAmount(DBusMessage* answer, dbus_uint64_t amount) {
  DBusMessageIter arguments;
  DBusMessageIter dictionaries;
  DBusMessageIter dictionary;
  DBusMessageIter entry;
  DBusMessageIter value;
  const char* key = "KELVANE_AMOUNT";
  dbus_message_iter_init_append(answer, &arguments);
  dbus_message_iter_open_container(&arguments, DBUS_TYPE_ARRAY, "a{sv}", &dictionaries);
  dbus_message_iter_open_container(&dictionaries, DBUS_TYPE_ARRAY, "{sv}", &dictionary);
  dbus_message_iter_open_container(&dictionary, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
  dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &key);
  dbus_message_iter_open_container(&entry, DBUS_TYPE_VARIANT, "t", &value);
  dbus_message_iter_append_basic(&value, DBUS_TYPE_UINT64, &amount);
  dbus_message_iter_close_container(&entry, &value);
  dbus_message_iter_close_container(&dictionary, &entry);
  dbus_message_iter_close_container(&dictionaries, &dictionary);
  dbus_message_iter_close_container(&arguments, &dictionaries);
}

/// The number under the key in the request's dictionary, its second argument.
dbus_uint64_t amountIn(DBusMessage* call) {
  DBusMessageIter at;
  DBusMessageIter entries;
  dbus_message_iter_init(call, &at);
  dbus_message_iter_next(&at);
  dbus_message_iter_recurse(&at, &entries);
  for (; dbus_message_iter_get_arg_type(&entries) == DBUS_TYPE_DICT_ENTRY; dbus_message_iter_next(&entries)) {
    DBusMessageIter entry;
    DBusMessageIter value;
    const char* name = nullptr;
    dbus_message_iter_recurse(&entries, &entry);
    dbus_message_iter_get_basic(&entry, &name);
    dbus_message_iter_next(&entry);
    dbus_message_iter_recurse(&entry, &value);
    DBusBasicValue number{};
    if (std::strcmp(name, "KELVANE_AMOUNT") != 0) continue;
    dbus_message_iter_get_basic(&value, &number);
    return number.u64;
  }
  return 0;
}

DBusHandlerResult handle(DBusConnection* connection, DBusMessage* call, void* /*data*/) {
  if (dbus_message_get_type(call) != DBUS_MESSAGE_TYPE_METHOD_CALL)
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  const std::string method = dbus_message_get_member(call);
  DBusMessage* const answer = dbus_message_new_method_return(call);
  if (method == "servicePurgeable") {
    appendAmount(answer, 4096);
  } else if (method == "servicePurge") {
    const dbus_uint64_t asked = amountIn(call);
    std::printf("purge %llu\n", static_cast<unsigned long long>(asked));
    appendAmount(answer, asked - 1);
  } else {
    std::printf("%s\n", method.c_str());
  }
  std::fflush(stdout);
  dbus_connection_send(connection, answer, nullptr);
  dbus_message_unref(answer);
  return DBUS_HANDLER_RESULT_HANDLED;
}

void serve(DBusServer* /*server*/, DBusConnection* connection, void* /*data*/) {
  dbus_connection_ref(connection);
  dbus_connection_add_filter(connection, handle, nullptr, nullptr);
  std::thread([connection] {
    while (dbus_connection_read_write_dispatch(connection, -1) != 0) continue;
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
  }).detach();
}

dbus_bool_t watch(DBusWatch* one, void* data) {
  *static_cast<DBusWatch**>(data) = one;
  return 1;
}
void forget(DBusWatch* /*one*/, void* /*data*/) {}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  dbus_threads_init_default();
  DBusError error = DBUS_ERROR_INIT;
  DBusServer* const server = dbus_server_listen(("unix:path=" + std::string(argv[1])).c_str(), &error);
  if (server == nullptr) {
    std::puts(error.message);
    return 1;
  }
  DBusWatch* listening = nullptr;
  dbus_server_set_new_connection_function(server, serve, nullptr, nullptr);
  dbus_server_set_watch_functions(server, watch, forget, nullptr, &listening, nullptr);
  std::puts("serving");
  std::fflush(stdout);
  pollfd waiting{dbus_watch_get_unix_fd(listening), POLLIN, 0};
  while (::poll(&waiting, 1, -1) == 1) dbus_watch_handle(listening, DBUS_WATCH_READABLE);
  return 1;
}
