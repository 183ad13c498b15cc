#include "platform/xpc/standard_interfaces.h"

#include <fstream>

#include "platform/wire/reader.h"
#include "tests/xpc/echo_server.h"
#include "tests/xpc/run_program.h"

namespace kelvane::tests {
namespace {

constexpr const char* peer = "org.freedesktop.DBus.Peer";
constexpr const char* introspectable = "org.freedesktop.DBus.Introspectable";
constexpr const char* properties = "org.freedesktop.DBus.Properties";
constexpr const char* bus = "org.freedesktop.DBus";

/// What came back, as text: the name of an error, or the values of a reply.
class StandardInterfaces : public testing::Test {
 protected:
  StandardInterfaces() { peer_.handshake(); }

  std::string ask(const std::string& path, const std::string& interface, const std::string& member,
                  const std::string& signature = "", const std::string& body = "") {
    RawMessage call;
    call.serial = ++serial_;
    call.path = path;
    call.interface = interface;
    call.member = member;
    call.signature = signature;
    call.body = body;
    peer_.send(call.bytes());
    const auto reply = peer_.receive();
    if (!reply) return "the end";
    EXPECT_EQ(reply->reply_serial, serial_);
    return textOf(*wire::parseMessage(std::as_bytes(std::span(reply->bytes))));
  }
  static std::string textOf(const wire::Message& message) {
    if (message.header.type == wire::MessageType::error) {
      const std::string name(message.header.error_name);
      return name.substr(name.rfind('.') + 1);
    }
    std::string text(message.header.signature);
    wire::Reader reader(message, {});
    while (!reader.atEnd()) text += " " + nextOf(reader);
    EXPECT_TRUE(reader.finish());
    return text;
  }
  static std::string nextOf(wire::Reader& reader) {
    switch (reader.nextType()) {
      case 's':
        return std::string(reader.readString());
      case 'u':
        return std::to_string(reader.readUint32());
      case 'b':
        return reader.readBoolean() ? "true" : "false";
      default:
        return nextInside(reader);
    }
  }
  static std::string nextInside(wire::Reader& reader) {
    const char type = reader.nextType();
    type == 'v' ? reader.enterVariant() : type == 'a' ? reader.enterArray() : reader.enterEntry();
    std::string text(1, type);
    while (!reader.atEnd()) text += " " + nextOf(reader);
    reader.leave();
    return text;
  }
  static std::string texts(const std::vector<std::string>& all) {
    RawWriter out;
    for (const std::string& each : all) out.text(each);
    return out.take();
  }

  EchoServer server_{Door::path};
  RawPeer peer_ = server_.rawPeer();
  std::uint32_t serial_ = 0;
};

TEST_F(StandardInterfaces, EveryObjectIsAPeer) {
  std::string machine;
  std::getline(std::ifstream("/etc/machine-id"), machine);
  const std::string expected = machine.empty() ? "FileNotFound" : "s " + machine;
  for (const char* path : {"/test/echo", "/", "/org/freedesktop/DBus", "/no/such/object"}) {
    EXPECT_EQ(ask(path, peer, "Ping"), "") << path;
    EXPECT_EQ(ask(path, peer, "GetMachineId"), expected) << path;
  }
  EXPECT_EQ(ask("/test/echo", peer, "Ping", "s", texts({"x"})), "InvalidArgs");
  EXPECT_EQ(ask("/test/echo", peer, "Pong"), "UnknownMethod");
}

TEST_F(StandardInterfaces, TheMachinesIdIsReadFromItsFileOrThereIsNone) {
  const test::TemporaryDirectory directory;
  directory.write("good", "0123456789abcdef0123456789abcdef\n");
  directory.write("bad", "uninitialized\n");
  EXPECT_EQ(xpc::machineID(directory / "good"), "0123456789abcdef0123456789abcdef");
  EXPECT_EQ(xpc::machineID(directory / "bad"), "");
  EXPECT_EQ(xpc::machineID(directory / "missing"), "");
}

TEST_F(StandardInterfaces, AnObjectSaysWhatItIsAndItsParentsWhatIsBelow) {
  const std::string object = ask("/test/echo", introspectable, "Introspect");
  EXPECT_NE(object.find("<interface name=\"test.Echo\">"), std::string::npos);
  EXPECT_NE(object.find("<arg name=\"endpoint\" type=\"h\" direction=\"in\"/>"), std::string::npos) << object;
  EXPECT_NE(object.find("<arg name=\"greeting\" type=\"s\" direction=\"out\"/>"), std::string::npos);
  EXPECT_NE(object.find("<property name=\"Answer\" type=\"u\" access=\"read\">"), std::string::npos);
  for (const char* interface : {peer, introspectable, properties})
    EXPECT_NE(object.find("<interface name=\"" + std::string(interface) + "\">"), std::string::npos);
  const std::string root = ask("/", introspectable, "Introspect");
  EXPECT_NE(root.find("<node name=\"org\"/>\n  <node name=\"test\"/>"), std::string::npos) << root;
  EXPECT_EQ(root.find("test.Echo"), std::string::npos);
  EXPECT_NE(ask("/test", introspectable, "Introspect").find("<node name=\"echo\"/>"), std::string::npos);
  EXPECT_NE(ask("/org/freedesktop", introspectable, "Introspect").find("<node name=\"DBus\"/>"),
            std::string::npos);
  EXPECT_EQ(ask("/tes", introspectable, "Introspect"), "UnknownObject");
  EXPECT_EQ(ask("/test/echo/below", introspectable, "Introspect"), "UnknownObject");
}

TEST_F(StandardInterfaces, PropertiesAreRead) {
  EXPECT_EQ(ask("/test/echo", properties, "Get", "ss", texts({"test.Echo", "Answer"})), "v v 42");
  EXPECT_EQ(ask("/test/echo", properties, "Get", "ss", texts({"", "Answer"})), "v v 42");
  EXPECT_EQ(ask("/test/echo", properties, "GetAll", "s", texts({"test.Echo"})), "a{sv} a { Answer v 42");
  EXPECT_EQ(ask("/test/echo", properties, "GetAll", "s", texts({""})), "a{sv} a { Answer v 42");
  EXPECT_EQ(ask("/test/echo", properties, "GetAll", "s", texts({peer})), "a{sv} a");
}

TEST_F(StandardInterfaces, WhatIsNoPropertyOrCannotBeSetIsAnError) {
  EXPECT_EQ(ask("/test/echo", properties, "Get", "ss", texts({"test.Echo", "Question"})), "UnknownProperty");
  EXPECT_EQ(ask("/test/echo", properties, "Get", "ss", texts({"no.such", "Answer"})), "UnknownInterface");
  EXPECT_EQ(ask("/test/echo", properties, "Get", "s", texts({"test.Echo"})), "InvalidArgs");
  EXPECT_EQ(ask("/test/echo", properties, "GetAll", "s", texts({"no.such"})), "UnknownInterface");
  EXPECT_EQ(ask("/no/such", properties, "GetAll", "s", texts({"test.Echo"})), "UnknownObject");
  const auto set = [&](const std::string& interface, const std::string& name) {
    RawWriter out;
    out.text(interface).text(name).signature("u").number(7);
    return ask("/test/echo", properties, "Set", "ssv", out.take());
  };
  EXPECT_EQ(set("test.Echo", "Answer"), "PropertyReadOnly");
  EXPECT_EQ(set("test.Echo", "Question"), "UnknownProperty");
  EXPECT_EQ(set("no.such", "Answer"), "UnknownInterface");
}

TEST_F(StandardInterfaces, WhatToolsAskABusForIsAnsweredAtItsPath) {
  const std::string path = "/org/freedesktop/DBus";
  EXPECT_EQ(ask(path, bus, "Hello"), "s :1.1");
  EXPECT_EQ(ask(path, bus, "AddMatch", "s", texts({"type='signal'"})), "");
  EXPECT_EQ(ask(path, bus, "RemoveMatch", "s", texts({"type='signal'"})), "");
  EXPECT_EQ(ask(path, bus, "GetNameOwner", "s", texts({"any.Name"})), "s :1.0");
  EXPECT_EQ(ask(path, bus, "NameHasOwner", "s", texts({"any.Name"})), "b true");
  EXPECT_EQ(ask(path, bus, "ListNames"), "as a org.freedesktop.DBus");
  EXPECT_EQ(ask(path, bus, "ListActivatableNames"), "as a org.freedesktop.DBus");
  EXPECT_EQ(ask(path, bus, "StartServiceByName", "su", RawWriter().text("any.Name").number(0).take()), "u 2");
  EXPECT_EQ(ask(path, bus, "AddMatch"), "InvalidArgs");
  EXPECT_EQ(ask(path, bus, "RequestName", "su", RawWriter().text("any.Name").number(0).take()),
            "UnknownMethod");
  EXPECT_EQ(ask("/test/echo", bus, "Hello"), "UnknownInterface");
}

TEST_F(StandardInterfaces, ACallWithoutAnInterfaceIsForTheFirstMethodOfItsName) {
  EXPECT_EQ(ask("/test/echo", "", "greet", "s", texts({"you"})), "s Hello, you");
  EXPECT_EQ(ask("/test/echo", "", "Ping"), "");
  EXPECT_EQ(ask("/org/freedesktop/DBus", "", "Hello"), "s :1.1");
  EXPECT_EQ(ask("/test/echo", "", "Hello"), "UnknownMethod");
}

TEST_F(StandardInterfaces, ACallThatWantsNoReplyGetsNone) {
  std::string calls;
  for (const char* member : {"Ping", "greet", "noSuchMethod"}) {
    RawMessage call;
    call.serial = ++serial_;
    call.interface = "";
    call.member = member;
    call.flags = 1;
    if (call.member == "greet") {
      call.signature = "s";
      call.body = texts({"nobody"});
    }
    calls += call.bytes();
  }
  const int before = server_.echo().calls;
  peer_.send(calls);
  EXPECT_EQ(ask("/test/echo", peer, "Ping"), "");  // the first reply that comes
  EXPECT_EQ(ask("/test/echo", "test.Echo", "greet", "s", texts({"you"})), "s Hello, you");
  EXPECT_EQ(server_.echo().calls, before + 2);
}

}  // namespace
}  // namespace kelvane::tests
