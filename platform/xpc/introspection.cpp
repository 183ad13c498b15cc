#include "platform/xpc/introspection.h"

#include <cstddef>

#include "platform/wire/signature.h"

namespace kelvane::xpc {
namespace {

constexpr const char* document_type =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n";

/// Names and types hold no character that XML would have to hide.
std::string attribute(const char* name, std::string_view value) {
  return std::string(" ").append(name).append("=\"").append(value).append("\"");
}

void appendArguments(std::string& xml, std::string_view signature, const std::vector<const char*>& names,
                     const char* direction) {
  for (std::size_t i = 0; !signature.empty(); ++i) {
    const std::size_t length = wire::completeTypeLength(signature);
    xml += "      <arg";
    if (i < names.size()) xml += attribute("name", names[i]);
    xml += attribute("type", signature.substr(0, length)) + attribute("direction", direction) + "/>\n";
    signature.remove_prefix(length);
  }
}

void appendMethod(std::string& xml, const MethodDescription& method) {
  xml += "    <method" + attribute("name", method.name);
  if (method.in.empty() && method.out.empty()) {
    xml += "/>\n";
    return;
  }
  xml += ">\n";
  appendArguments(xml, method.in, method.in_names, "in");
  appendArguments(xml, method.out, method.out_names, "out");
  xml += "    </method>\n";
}

void appendProperty(std::string& xml, const PropertyDescription& property) {
  xml += "    <property" + attribute("name", property.name) + attribute("type", "u") +
         attribute("access", "read") +
         ">\n"
         "      <annotation name=\"org.freedesktop.DBus.Property.EmitsChangedSignal\" value=\"false\"/>\n"
         "    </property>\n";
}

}  // namespace

std::string introspectionXml(const InterfaceDescription& interface) {
  return introspectionXml({&interface}, {});
}

std::string introspectionXml(const std::vector<const InterfaceDescription*>& interfaces,
                             const std::set<std::string_view>& children) {
  std::string xml = std::string(document_type) + "<node>\n";
  for (const InterfaceDescription* interface : interfaces) {
    xml += "  <interface" + attribute("name", interface->name) + ">\n";
    for (const MethodDescription& method : interface->methods) appendMethod(xml, method);
    for (const PropertyDescription& property : interface->properties) appendProperty(xml, property);
    xml += "  </interface>\n";
  }
  for (const std::string_view child : children) xml += "  <node" + attribute("name", child) + "/>\n";
  return xml + "</node>\n";
}

}  // namespace kelvane::xpc
