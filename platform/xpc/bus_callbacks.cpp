#include "platform/xpc/bus_callbacks.h"

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace kelvane::xpc {
namespace {

std::vector<sd_bus_vtable> makeTable(const InterfaceDescription& interface, sd_bus_message_handler_t call,
                                     sd_bus_property_get_t read) {
  std::vector<sd_bus_vtable> table{SD_BUS_VTABLE_START(0)};
  for (const MethodDescription& method : interface.methods) {
    table.push_back(
        SD_BUS_METHOD(method.name, method.in.c_str(), method.out.c_str(), call, SD_BUS_VTABLE_UNPRIVILEGED));
  }
  for (const PropertyDescription& property : interface.properties) {
    table.push_back(SD_BUS_PROPERTY(property.name, "u", read, 0, 0));
  }
  table.push_back(SD_BUS_VTABLE_END);
  return table;
}

}  // namespace

const sd_bus_vtable* vtableOf(const InterfaceDescription& interface, sd_bus_message_handler_t call,
                              sd_bus_property_get_t read) {
  static std::mutex mutex;
  static auto& tables = *new std::map<const InterfaceDescription*, std::vector<sd_bus_vtable>>;
  const std::scoped_lock lock(mutex);
  auto [table, is_new] = tables.try_emplace(&interface);
  if (is_new) table->second = makeTable(interface, call, read);
  return table->second.data();
}

int answerBusDriver(sd_bus_message* message, void* /*userdata*/, sd_bus_error* /*error*/) {
  const char* const interface = sd_bus_message_get_interface(message);
  const char* const member = sd_bus_message_get_member(message);
  if (interface == nullptr || member == nullptr || std::strcmp(interface, "org.freedesktop.DBus") != 0)
    return 0;
  const auto is = [&](const char* name) { return std::strcmp(member, name) == 0; };
  if (is("Hello")) return sd_bus_reply_method_return(message, "s", ":1.1");
  if (is("AddMatch") || is("RemoveMatch")) return sd_bus_reply_method_return(message, nullptr);
  if (is("GetNameOwner")) return sd_bus_reply_method_return(message, "s", ":1.0");
  if (is("NameHasOwner")) return sd_bus_reply_method_return(message, "b", 1);
  if (is("StartServiceByName")) return sd_bus_reply_method_return(message, "u", 2U);  // it runs already
  if (is("ListNames") || is("ListActivatableNames")) {
    return sd_bus_reply_method_return(message, "as", 1, "org.freedesktop.DBus");
  }
  return 0;
}

}  // namespace kelvane::xpc
