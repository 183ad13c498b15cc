#include "platform/xpc/standard_interfaces.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <string_view>
#include <vector>

#include "platform/xpc/answer.h"
#include "platform/xpc/error.h"
#include "platform/xpc/introspection.h"

namespace kelvane::xpc {
namespace {

using std::string_view;

constexpr string_view bus_path = "/org/freedesktop/DBus";
constexpr const char* bus_name = "org.freedesktop.DBus";

/// One call under way.
struct Question {
  const Exported& exported;
  const wire::Message& call;
  wire::Outgoing& answer;

  [[nodiscard]] string_view path() const { return call.header.path; }
  void reply(string_view signature, FunctionRef<void(wire::Writer&)> write) const {
    makeReply(answer, call.header.serial, signature, write);
  }
  void replyText(const std::string& text) const {
    reply("s", [&](wire::Writer& out) { out.writeString(text); });
  }
  void replyNothing() const {
    reply("", [](wire::Writer&) {});
  }
  void error(const char* name, const std::string& text) const {
    makeError(answer, call.header.serial, name, text);
  }
};

struct Standard {
  using Answer = void (*)(const Question&);

  /// Whether an object has the interface.
  bool (*is_at)(const Exported& exported, string_view path);
  InterfaceDescription interface;
  std::vector<Answer> answers;  // to its methods, in their order
};

const std::vector<const Standard*>& standards();

std::string quoted(string_view text) { return "'" + std::string(text) + "'"; }

// --- which objects there are ---

/// Whether `path` is an ancestor of `descendant`.
bool isAbove(string_view path, string_view descendant) {
  if (path == "/") return descendant != "/";
  return descendant.size() > path.size() && descendant.starts_with(path) && descendant[path.size()] == '/';
}

std::vector<string_view> objectsOf(const Exported& exported) {
  std::vector<string_view> objects;
  if (exported.interface != nullptr) objects.emplace_back(exported.interface->path);
  if (exported.is_server) objects.push_back(bus_path);
  return objects;
}

bool isObject(const Exported& exported, string_view path) {
  const auto objects = objectsOf(exported);
  return std::find(objects.begin(), objects.end(), path) != objects.end();
}

/// Objects, and the paths above them.
bool isNode(const Exported& exported, string_view path) {
  const auto objects = objectsOf(exported);
  return path == "/" || std::any_of(objects.begin(), objects.end(), [&](string_view object) {
           return object == path || isAbove(path, object);
         });
}

std::set<string_view> childrenOf(const Exported& exported, string_view path) {
  std::set<string_view> children;
  for (string_view object : objectsOf(exported)) {
    if (!isAbove(path, object)) continue;
    object.remove_prefix(path == "/" ? 1 : path.size() + 1);
    children.insert(object.substr(0, object.find('/')));
  }
  return children;
}

std::vector<const InterfaceDescription*> interfacesAt(const Exported& exported, string_view path) {
  std::vector<const InterfaceDescription*> interfaces;
  if (exported.interface != nullptr && path == exported.interface->path)
    interfaces.push_back(exported.interface);
  for (const Standard* standard : standards()) {
    if (standard->is_at(exported, path)) interfaces.push_back(&standard->interface);
  }
  return interfaces;
}

bool isEverywhere(const Exported& /*exported*/, string_view /*path*/) { return true; }
bool isTheBus(const Exported& exported, string_view path) { return exported.is_server && path == bus_path; }

// --- org.freedesktop.DBus.Peer, Introspectable ---

void getMachineID(const Question& question) {
  const std::string ID = machineID();
  if (ID.empty()) return question.error(error_file_not_found, "this machine has no ID in /etc/machine-id");
  question.replyText(ID);
}

void introspect(const Question& question) {
  question.replyText(introspectionXml(interfacesAt(question.exported, question.path()),
                                      childrenOf(question.exported, question.path())));
}

// --- org.freedesktop.DBus.Properties ---

using Properties = std::vector<const PropertyDescription*>;

/// Those of the interface, or, when that is empty, of all. False, and an error, when there is no such
/// interface.
bool findProperties(const Question& question, string_view interface, Properties& found) {
  bool known = interface.empty();
  for (const InterfaceDescription* each : interfacesAt(question.exported, question.path())) {
    if (!interface.empty() && interface != each->name) continue;
    known = true;
    for (const PropertyDescription& property : each->properties) found.push_back(&property);
  }
  if (!known) {
    question.error(error_unknown_interface,
                   "Unknown interface " + quoted(interface) + " of object " + quoted(question.path()));
  }
  return known;
}

/// The property that the call names in its first two arguments; null, and an error, when there is none.
const PropertyDescription* findProperty(const Question& question) {
  wire::Reader reader(question.call, {});
  const string_view interface = reader.readString();
  const string_view name = reader.readString();
  Properties all;
  if (!findProperties(question, interface, all)) return nullptr;
  const auto found = std::find_if(all.begin(), all.end(),
                                  [&](const PropertyDescription* each) { return name == each->name; });
  if (found != all.end()) return *found;
  question.error(error_unknown_property, "Unknown property " + quoted(name));
  return nullptr;
}

void writeProperty(wire::Writer& out, const PropertyDescription& property) {
  out.openVariant("u");
  out.writeUint32(property.read());
  out.closeVariant();
}

void getProperty(const Question& question) {
  const PropertyDescription* const property = findProperty(question);
  if (property == nullptr) return;
  question.reply("v", [&](wire::Writer& out) { writeProperty(out, *property); });
}

void getAllProperties(const Question& question) {
  wire::Reader reader(question.call, {});
  Properties all;
  if (!findProperties(question, reader.readString(), all)) return;
  question.reply("a{sv}", [&](wire::Writer& out) {
    out.openArray("{sv}");
    for (const PropertyDescription* property : all) {
      out.openEntry("sv");
      out.writeString(property->name);
      writeProperty(out, *property);
      out.closeEntry();
    }
    out.closeArray();
  });
}

void setProperty(const Question& question) {
  const PropertyDescription* const property = findProperty(question);
  if (property == nullptr) return;
  question.error(error_property_read_only, "Property " + quoted(property->name) + " can only be read");
}

// --- org.freedesktop.DBus: what tools ask a bus for before they speak to a peer ---

void listNames(const Question& question) {
  question.reply("as", [](wire::Writer& out) {
    out.openArray("s");
    out.writeString(bus_name);
    out.closeArray();
  });
}

const std::vector<const Standard*>& standards() {
  static const Standard peer{
      isEverywhere,
      {nullptr,
       "org.freedesktop.DBus.Peer",
       {{"Ping", "", "", nullptr, {}, {}}, {"GetMachineId", "", "s", nullptr, {}, {"machine_uuid"}}}},
      {[](const Question& question) { question.replyNothing(); }, getMachineID}};
  static const Standard introspectable{
      isNode,
      {nullptr, "org.freedesktop.DBus.Introspectable", {{"Introspect", "", "s", nullptr, {}, {"xml_data"}}}},
      {introspect}};
  static const Standard properties{
      isObject,
      {nullptr,
       "org.freedesktop.DBus.Properties",
       {{"Get", "ss", "v", nullptr, {"interface_name", "property_name"}, {"value"}},
        {"GetAll", "s", "a{sv}", nullptr, {"interface_name"}, {"properties"}},
        {"Set", "ssv", "", nullptr, {"interface_name", "property_name", "value"}, {}}}},
      {getProperty, getAllProperties, setProperty}};
  static const Standard bus{isTheBus,
                            {nullptr,
                             bus_name,
                             {{"Hello", "", "s", nullptr, {}, {"unique_name"}},
                              {"AddMatch", "s", "", nullptr, {"rule"}, {}},
                              {"RemoveMatch", "s", "", nullptr, {"rule"}, {}},
                              {"GetNameOwner", "s", "s", nullptr, {"name"}, {"unique_name"}},
                              {"NameHasOwner", "s", "b", nullptr, {"name"}, {"has_owner"}},
                              {"StartServiceByName", "su", "u", nullptr, {"name", "flags"}, {"result"}},
                              {"ListNames", "", "as", nullptr, {}, {"names"}},
                              {"ListActivatableNames", "", "as", nullptr, {}, {"names"}}}},
                            {[](const Question& question) { question.replyText(":1.1"); },
                             [](const Question& question) { question.replyNothing(); },
                             [](const Question& question) { question.replyNothing(); },
                             [](const Question& question) { question.replyText(":1.0"); },
                             [](const Question& question) {
                               question.reply("b", [](wire::Writer& out) { out.writeBoolean(true); });
                             },
                             [](const Question& question) {
                               question.reply(
                                   "u", [](wire::Writer& out) { out.writeUint32(2); });  // it runs already
                             },
                             listNames, listNames}};
  static const std::vector<const Standard*> all{&peer, &introspectable, &properties, &bus};
  return all;
}

// --- which method a call is for ---

bool isFor(const wire::Header& call, const InterfaceDescription& interface) {
  return call.interface.empty() || call.interface == interface.name;
}

const MethodDescription* findMethod(const InterfaceDescription& interface, string_view name) {
  const auto found = std::find_if(interface.methods.begin(), interface.methods.end(),
                                  [&](const MethodDescription& method) { return name == method.name; });
  return found != interface.methods.end() ? &*found : nullptr;
}

bool answerByStandard(const Question& question, const Standard& standard) {
  const wire::Header& call = question.call.header;
  if (!isFor(call, standard.interface) || !standard.is_at(question.exported, call.path)) return false;
  const MethodDescription* const method = findMethod(standard.interface, call.member);
  if (method == nullptr) return false;
  if (call.signature != method->in) {
    question.error(error_invalid_arguments, wrongArguments(call, method->in));
  } else {
    standard.answers.at(static_cast<std::size_t>(method - standard.interface.methods.data()))(question);
  }
  return true;
}

void answerUnknown(const Question& question) {
  const wire::Header& call = question.call.header;
  if (!isNode(question.exported, call.path))
    return question.error(error_unknown_object, "Unknown object " + quoted(call.path));
  const auto interfaces = interfacesAt(question.exported, call.path);
  if (std::none_of(interfaces.begin(), interfaces.end(),
                   [&](const InterfaceDescription* each) { return isFor(call, *each); })) {
    return question.error(error_unknown_interface,
                          "Unknown interface " + quoted(call.interface) + " of object " + quoted(call.path));
  }
  question.error(error_unknown_method,
                 "Unknown method " + quoted(call.member) +
                     (call.interface.empty() ? " of object " + quoted(call.path)
                                             : " of interface " + quoted(call.interface)));
}

}  // namespace

const MethodDescription* exportedMethod(const Exported& exported, const wire::Header& call) {
  if (exported.interface == nullptr || call.path != exported.interface->path ||
      !isFor(call, *exported.interface)) {
    return nullptr;
  }
  return findMethod(*exported.interface, call.member);
}

void answerStandardCall(const Exported& exported, const wire::Message& call, wire::Outgoing& answer) {
  const Question question{exported, call, answer};
  const auto& all = standards();
  if (std::none_of(all.begin(), all.end(),
                   [&](const Standard* standard) { return answerByStandard(question, *standard); })) {
    answerUnknown(question);
  }
}

std::string wrongArguments(const wire::Header& call, const std::string& expected) {
  return "Invalid arguments " + quoted(call.signature) + " of call " + std::string(call.member) +
         "(), expecting " + quoted(expected);
}

std::string machineID(const std::string& path) {
  std::string ID;
  std::getline(std::ifstream(path), ID);
  const bool valid = ID.size() == 32 && ID.find_first_not_of("0123456789abcdef") == std::string::npos;
  return valid ? ID : "";
}

}  // namespace kelvane::xpc
