// Programs that know nothing of this system speak to an echo object at a path.

#include <fcntl.h>
#include <sys/socket.h>
#include <array>

#include "tests/xpc/echo_server.h"
#include "tests/xpc/run_program.h"

namespace kelvane::tests {
namespace {

class StockTools : public testing::Test {
 protected:
  [[nodiscard]] std::string address() const { return "unix:path=" + server_.path(); }
  ProgramResult busctl(const std::string& rest) const {
    return runProgram("busctl --address=" + address() + " " + rest);
  }
  ProgramResult gdbus(const std::string& rest) const {
    return runProgram("gdbus " + rest.substr(0, rest.find(' ')) + " --address " + address() +
                      " --dest test.Echo --object-path /test/echo" +
                      (rest.find(' ') == std::string::npos ? "" : rest.substr(rest.find(' '))));
  }
  static ProgramResult python(const std::string& script, const std::string& argument) {
    return runProgram("/usr/bin/python3 -c " + quoted(script) + " " + argument);
  }
  static void expectOutput(const ProgramResult& result, const std::string& part) {
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_NE(result.output.find(part), std::string::npos) << result.output;
  }
  static void expectFailure(const ProgramResult& result, const std::string& part) {
    EXPECT_NE(result.status, 0) << result.output;
    EXPECT_NE(result.output.find(part), std::string::npos) << result.output;
  }

  EchoServer server_{Door::path};
};

TEST_F(StockTools, BusctlCalls) {
  const ProgramResult result =
      busctl("-- call test.Echo /test/echo test.Echo echo 'a{sv}' 3 text s hello number i -7 list as 2 a b");
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_EQ(result.output, "aa{sv} 1 3 \"list\" av 2 s \"a\" s \"b\" \"number\" x -7 \"text\" s \"hello\"\n");
  expectOutput(busctl("call test.Echo /test/echo test.Echo greet s you"), "s \"Hello, you\"\n");
  expectOutput(busctl("-- call test.Echo /test/echo test.Echo echoAnything av 0"), "av 0\n");
}

TEST_F(StockTools, BusctlIntrospects) {
  const ProgramResult result = busctl("introspect test.Echo /test/echo");
  expectOutput(result, "test.Echo");
  expectOutput(result, ".echo");
  expectOutput(result, "a{sv}");
  expectOutput(result, "aa{sv}");
  expectOutput(result, ".openBack");
  expectOutput(busctl("tree test.Echo"), "/test/echo");
}

TEST_F(StockTools, BusctlIsToldWhatIsWrong) {
  expectFailure(busctl("-- call test.Echo /test/echo test.Echo echo s text"), "Invalid arguments");
  expectFailure(busctl("call test.Echo /test/echo test.Echo noSuchMethod"), "Unknown method");
  expectFailure(busctl("call test.Echo /nowhere test.Echo greet s you"), "Unknown object");
}

TEST_F(StockTools, GdbusCalls) {
  ProgramResult result = gdbus("call --method test.Echo.echo \"{'text': <'hello'>, 'number': <int16 -7>}\"");
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_EQ(result.output, "([{'number': <int64 -7>, 'text': <'hello'>}],)\n");
  result = gdbus("call --method test.Echo.greet you");
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_EQ(result.output, "('Hello, you',)\n");
}

TEST_F(StockTools, GdbusIntrospects) {
  const ProgramResult result = gdbus("introspect");
  expectOutput(result, "interface test.Echo {");
  expectOutput(result, "echo(in  a{sv}");
}

TEST_F(StockTools, GdbusIsToldWhatIsWrong) {
  expectFailure(gdbus("call --method test.Echo.noSuchMethod"), "UnknownMethod");
}

TEST_F(StockTools, DbusSendCallsWithoutABus) {
  expectOutput(
      runProgram("dbus-send --peer=" + address() + " --print-reply /test/echo test.Echo.greet string:you"),
      "string \"Hello, you\"");
  expectOutput(runProgram("dbus-send --peer=" + address() +
                          " --print-reply /test/echo org.freedesktop.DBus.Introspectable.Introspect"),
               "interface name=\"test.Echo\"");
  expectFailure(runProgram("dbus-send --peer=" + address() +
                           " --print-reply /test/echo test.Echo.echo dict:string:string:a,b"),
                "InvalidArgs");
}

TEST_F(StockTools, PythonsDbusModuleCalls) {
  const ProgramResult result = python(R"(
import sys, dbus, dbus.connection
c = dbus.connection.Connection(sys.argv[1])
o = c.get_object(object_path="/test/echo", introspect=False)
r = dbus.Interface(o, "test.Echo").echo({"text": "hello", "yes": True, "many": dbus.UInt64(2**64 - 1)}, signature="a{sv}")
print(len(r), str(r[0]["text"]), bool(r[0]["yes"]), int(r[0]["many"]))
try:
    dbus.Interface(o, "test.Echo").noSuchMethod()
except dbus.DBusException as error:
    print(error.get_dbus_name())
)",
                                      address());
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_EQ(result.output, "1 hello True 18446744073709551615\norg.freedesktop.DBus.Error.UnknownMethod\n");
}

TEST_F(StockTools, JeepneyCallsAndPassesADescriptor) {
  const ProgramResult result = python(R"(
import sys, socket
from jeepney import DBusAddress, new_method_call, MessageType
from jeepney.io.blocking import DBusConnection, prep_socket
c = DBusConnection(prep_socket(sys.argv[1], enable_fds=True), enable_fds=True)
a = DBusAddress("/test/echo", bus_name="test.Echo", interface="test.Echo")
r = c.send_and_get_reply(new_method_call(a, "echo", "a{sv}", ({"text": ("s", "hello")},)))
print(r.body)
one, other = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
r = c.send_and_get_reply(new_method_call(a, "openBack", "sh", ("from jeepney", one)))
print(r.header.message_type == MessageType.method_return)
)",
                                      "'" + server_.path() + "'");
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_EQ(result.output, "([{'text': ('s', 'hello')}],)\nTrue\n");
  EXPECT_EQ(server_.echo().lastName(), "from jeepney");
}

TEST_F(StockTools, AGioServiceInPythonIsReachedThroughAnEndpoint) {
  // The service speaks on what it receives; its side is the one that answers the handshake.
  std::array<int, 2> pair{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair.data()), 0);
  FileDescriptor far(pair[1]);
  ASSERT_EQ(::fcntl(pair[0], F_SETFD, FD_CLOEXEC), 0);
  const std::string script = R"py(
import sys, socket, array
from gi.repository import Gio, GLib
door = socket.socket(fileno=int(sys.argv[1]))
byte, ancillary, flags, address = door.recvmsg(1, socket.CMSG_SPACE(4))
received = array.array("i", ancillary[0][2])[0]
stream = Gio.Socket.new_from_fd(received).connection_factory_create_connection()
bus = Gio.DBusConnection.new_sync(stream, Gio.dbus_generate_guid(), Gio.DBusConnectionFlags.AUTHENTICATION_SERVER
    | Gio.DBusConnectionFlags.DELAY_MESSAGE_PROCESSING, None, None)
node = Gio.DBusNodeInfo.new_for_xml("<node><interface name='test.Echo'><method name='greet'>"
    "<arg type='s' direction='in'/><arg type='s' direction='out'/></method></interface></node>")
loop = GLib.MainLoop()
def call(connection, sender, path, interface, method, parameters, invocation):
    invocation.return_value(GLib.Variant("(s)", ("Python greets " + parameters[0],)))
bus.register_object("/test/echo", node.interfaces[0], call, None, None)
bus.connect("closed", lambda *ignored: loop.quit())
bus.start_message_processing()
loop.run()
)py";
  const auto connection =
      xpc::Connection::initWithListenerEndpoint(*xpc::Endpoint::adopt(FileDescriptor(pair[0])));
  connection->resume();
  const Signal greeted;
  std::string greeting;
  connection
      ->remoteObjectProxyWithErrorHandler<EchoProtocol>([&](const xpc::Error& error) {
        greeting = error.description();
        greeted();
      })
      ->greet("you", [&](std::string reply) {
        greeting = std::move(reply);
        greeted();
      });
  const std::string number = std::to_string(far.get());
  ProgramResult result;
  const Signal ended;
  dispatch_async(dispatch_get_global_queue(0, 0), [&] {
    result = python(script, number);
    ended();
  });
  greeted.wait();
  EXPECT_EQ(greeting, "Python greets you");
  connection->invalidate();
  ended.wait();
  EXPECT_EQ(result.status, 0) << result.output;
}

}  // namespace
}  // namespace kelvane::tests
