// A client made with libdbus: libdbus_client SOCKET VOLUME. Prints an answer a line, as clients_test.cpp
// expects of every client.

#include <dbus/dbus.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

constexpr const char* path = "/com/orvel/kelvane";
constexpr const char* interface = "com.orvel.KelvaneClientProtocol";

struct Unref {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, Unref>;

Message callOf(const char* method, const char* of = interface) {
  return Message(dbus_message_new_method_call(nullptr, path, of, method));
}

void appendVariant(DBusMessageIter& to, int type, const void* value) {
  DBusMessageIter variant;
  const char signature[] = {static_cast<char>(type), '\0'};
  dbus_message_iter_open_container(&to, DBUS_TYPE_VARIANT, signature, &variant);
  dbus_message_iter_append_basic(&variant, type, value);
  dbus_message_iter_close_container(&to, &variant);
}

void appendEntry(DBusMessageIter& dictionary, const char* key, int type, const void* value) {
  DBusMessageIter entry;
  dbus_message_iter_open_container(&dictionary, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
  dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &key);
  appendVariant(entry, type, value);
  dbus_message_iter_close_container(&dictionary, &entry);
}

/// A request about the volume; `amount` 0 leaves that out.
Message requestFor(const char* method, const char* volume, dbus_uint64_t amount) {
  Message call = callOf(method);
  DBusMessageIter arguments;
  DBusMessageIter dictionary;
  dbus_message_iter_init_append(call.get(), &arguments);
  dbus_message_iter_open_container(&arguments, DBUS_TYPE_ARRAY, "{sv}", &dictionary);
  appendEntry(dictionary, "KELVANE_VOLUME", DBUS_TYPE_STRING, &volume);
  if (amount != 0) appendEntry(dictionary, "KELVANE_AMOUNT", DBUS_TYPE_UINT64, &amount);
  dbus_message_iter_close_container(&arguments, &dictionary);
  return call;
}

/// Null after an error, which is printed.
Message answerTo(DBusConnection* daemon, const Message& call) {
  DBusError error = DBUS_ERROR_INIT;
  Message answer(
      dbus_connection_send_with_reply_and_block(daemon, call.get(), DBUS_TIMEOUT_INFINITE, &error));
  if (answer == nullptr) std::printf("error %s\n", error.name);
  dbus_error_free(&error);
  return answer;
}

/// The number under `key` in the answered dictionary, "none" without one.
std::string numberIn(const Message& answer, const std::string& key) {
  DBusMessageIter at;
  DBusMessageIter dictionaries;
  DBusMessageIter entries;
  if (answer == nullptr || !dbus_message_iter_init(answer.get(), &at)) return "none";
  dbus_message_iter_recurse(&at, &dictionaries);
  if (dbus_message_iter_get_arg_type(&dictionaries) != DBUS_TYPE_ARRAY) return "none";
  dbus_message_iter_recurse(&dictionaries, &entries);
  for (; dbus_message_iter_get_arg_type(&entries) == DBUS_TYPE_DICT_ENTRY; dbus_message_iter_next(&entries)) {
    DBusMessageIter entry;
    DBusMessageIter value;
    const char* name = nullptr;
    dbus_message_iter_recurse(&entries, &entry);
    dbus_message_iter_get_basic(&entry, &name);
    if (key != name) continue;
    dbus_message_iter_next(&entry);
    dbus_message_iter_recurse(&entry, &value);
    DBusBasicValue number{};
    dbus_message_iter_get_basic(&value, &number);
    return std::to_string(number.u64);
  }
  return "none";
}

void setState(DBusConnection* daemon, const char* value, const char* key) {
  const Message call = callOf("clientSetState");
  DBusMessageIter arguments;
  DBusMessageIter values;
  dbus_message_iter_init_append(call.get(), &arguments);
  dbus_message_iter_open_container(&arguments, DBUS_TYPE_ARRAY, "v", &values);
  appendVariant(values, DBUS_TYPE_STRING, &value);
  dbus_message_iter_close_container(&arguments, &values);
  dbus_message_iter_append_basic(&arguments, DBUS_TYPE_STRING, &key);
  if (answerTo(daemon, call) != nullptr) std::puts("set");
}

void getState(DBusConnection* daemon, const char* key) {
  const Message call = callOf("clientGetState");
  DBusMessageIter arguments;
  dbus_message_iter_init_append(call.get(), &arguments);
  appendVariant(arguments, DBUS_TYPE_STRING, &key);
  const Message answer = answerTo(daemon, call);
  DBusMessageIter at;
  DBusMessageIter values;
  DBusMessageIter value;
  if (answer == nullptr || !dbus_message_iter_init(answer.get(), &at)) return;
  dbus_message_iter_recurse(&at, &values);
  const char* text = "nothing";
  if (dbus_message_iter_get_arg_type(&values) == DBUS_TYPE_VARIANT) {
    dbus_message_iter_recurse(&values, &value);
    dbus_message_iter_get_basic(&value, &text);
  }
  std::printf("state %s\n", text);
}

void tryWhatIsWrong(DBusConnection* daemon) {
  static_cast<void>(answerTo(daemon, callOf("noSuchMethod")));
  const Message call = callOf("clientPurge");
  const char* text = "no dictionary";
  dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  static_cast<void>(answerTo(daemon, call));
}

void askThePeer(DBusConnection* daemon) {
  if (answerTo(daemon, callOf("Ping", DBUS_INTERFACE_PEER)) != nullptr) std::puts("pong");
  const Message machine = answerTo(daemon, callOf("GetMachineId", DBUS_INTERFACE_PEER));
  const char* text = "";
  if (machine != nullptr && dbus_message_get_args(machine.get(), nullptr, DBUS_TYPE_STRING, &text, 0))
    std::printf("machine %s\n", text);
  const Message described = answerTo(daemon, callOf("Introspect", DBUS_INTERFACE_INTROSPECTABLE));
  if (described != nullptr && dbus_message_get_args(described.get(), nullptr, DBUS_TYPE_STRING, &text, 0))
    std::puts(std::strstr(text, "clientPurge") != nullptr ? "described" : text);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  DBusError error = DBUS_ERROR_INIT;
  DBusConnection* const daemon =
      dbus_connection_open_private(("unix:path=" + std::string(argv[1])).c_str(), &error);
  if (daemon == nullptr) {
    std::puts(error.message);
    return 1;
  }
  setState(daemon, "kept", "com.example.peer");
  getState(daemon, "com.example.peer");
  getState(daemon, "com.example.absent");
  std::printf("purgeable %s\n", numberIn(answerTo(daemon, requestFor("clientPurgeableSpace", argv[2], 0)),
                                         "KELVANE_TOTAL_AVAILABLE")
                                    .c_str());
  std::printf(
      "purged %s\n",
      numberIn(answerTo(daemon, requestFor("clientPurge", argv[2], 2 << 20)), "KELVANE_AMOUNT").c_str());
  if (answerTo(daemon, requestFor("clientCancelPurge", argv[2], 0)) != nullptr) std::puts("cancelled");
  tryWhatIsWrong(daemon);
  askThePeer(daemon);
  dbus_connection_close(daemon);
  dbus_connection_unref(daemon);
  return 0;
}
