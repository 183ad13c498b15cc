// The stock tools inspect a real daemon: its interfaces, its properties (none), and its objects.

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "tests/system/daemon.h"

namespace kelvane::tests {
namespace {

constexpr const char* client_protocol = "com.orvel.KelvaneClientProtocol";

class StockToolsAtTheDaemon : public testing::Test {
 protected:
  [[nodiscard]] Finished busctl(std::vector<std::string> words) const {
    words.insert(words.begin(), {"busctl", "--address=" + daemon_.address()});
    return run(words);
  }
  [[nodiscard]] Finished gdbus(const std::string& command, const std::vector<std::string>& more) const {
    std::vector<std::string> words = {"gdbus",         command,
                                      "--address",     daemon_.address(),
                                      "--dest",        "com.orvel.Kelvane",
                                      "--object-path", "/com/orvel/kelvane"};
    words.insert(words.end(), more.begin(), more.end());
    return run(words);
  }
  static void expectSaid(const Finished& tool, int status, const std::vector<std::string>& parts) {
    EXPECT_EQ(tool.status, status) << tool.output;
    for (const std::string& part : parts)
      EXPECT_NE(tool.output.find(part), std::string::npos) << part << "\n" << tool.output;
  }

  Daemon daemon_;
};

TEST_F(StockToolsAtTheDaemon, BusctlFindsNoPropertyAndSaysWhich) {
  expectSaid(busctl({"get-property", "com.orvel.Kelvane", "/com/orvel/kelvane", client_protocol, "Colour"}),
             1, {"Failed to get property Colour"});
  expectSaid(busctl({"set-property", "com.orvel.Kelvane", "/com/orvel/kelvane", client_protocol, "Colour",
                     "s", "x"}),
             1, {"Failed to set property Colour"});
  expectSaid(busctl({"call", "com.orvel.Kelvane", "/com/orvel/kelvane", "org.freedesktop.DBus.Properties",
                     "GetAll", "s", client_protocol}),
             0, {"a{sv} 0"});
}

TEST_F(StockToolsAtTheDaemon, BusctlShowsTheTreeOfObjects) {
  expectSaid(busctl({"tree", "com.orvel.Kelvane"}), 0, {"/com/orvel/kelvane"});
}

TEST_F(StockToolsAtTheDaemon, BusctlIntrospects) {
  expectSaid(busctl({"introspect", "com.orvel.Kelvane", "/com/orvel/kelvane"}), 0,
             {".clientCheckin", "sha{sv}", "aa{sv}", ".clientSetState", "avs", "org.freedesktop.DBus.Peer",
              "org.freedesktop.DBus.Properties", "org.freedesktop.DBus.Introspectable"});
}

TEST_F(StockToolsAtTheDaemon, GdbusIntrospectsAndCalls) {
  expectSaid(
      gdbus("introspect", {}), 0,
      {"interface com.orvel.KelvaneClientProtocol {", "clientCheckin(in  s ", "clientGetState(in  v "});
  expectSaid(gdbus("call", {"--method", "com.orvel.KelvaneClientProtocol.clientGetState", "<'absent'>"}), 0,
             {"(@av [],)"});
  expectSaid(gdbus("call", {"--method", "org.freedesktop.DBus.Peer.Ping"}), 0, {"()"});
}

TEST_F(StockToolsAtTheDaemon, GdbusIsToldWhatIsUnknown) {
  expectSaid(gdbus("call", {"--method", "org.freedesktop.DBus.Properties.Get", client_protocol, "Colour"}), 1,
             {"org.freedesktop.DBus.Error.UnknownProperty"});
  expectSaid(gdbus("call", {"--method", "com.orvel.KelvaneClientProtocol.noSuchMethod"}), 1,
             {"org.freedesktop.DBus.Error.UnknownMethod"});
}

TEST_F(StockToolsAtTheDaemon, DbusSendCallsWithoutHello) {
  expectSaid(run({"dbus-send", "--peer=" + daemon_.address(), "--print-reply", "/com/orvel/kelvane",
                  "com.orvel.KelvaneClientProtocol.clientGetState", "variant:string:absent"}),
             0, {"method return", "array ["});
}

}  // namespace
}  // namespace kelvane::tests
