// Services made with other libraries: a real daemon pings them, asks them and drops them.

#include <gtest/gtest.h>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "common/keys.h"
#include "tests/system/daemon.h"

namespace kelvane::tests {
namespace {

std::string script(const std::string& name) {
  return std::string(KELVANE_SOURCE_FOLDER) + "/tests/peers/" + name;
}

/// Of a service that could free 4096 bytes, and frees one less than it is asked for.
void expectAskedAndPurged(const Daemon& daemon, const Volume& volume, Process& service,
                          const std::string& id) {
  Client client(daemon);
  const auto question = client.purgeableSpace({{KELVANE_VOLUME, volume.path()}});
  ASSERT_TRUE(question) << client.failure();
  EXPECT_EQ((*question)[id].unsignedLongLongValue(), 4096U) << service.output();
  const auto result = client.purge({{KELVANE_VOLUME, volume.path()}, {KELVANE_AMOUNT, 1000U}});
  ASSERT_TRUE(result) << client.failure();
  EXPECT_EQ((*result)[KELVANE_AMOUNT].unsignedLongLongValue(), 999U) << service.output();
  EXPECT_TRUE(service.printed("purge")) << service.output();
}

class ForeignServices : public testing::Test {
 protected:
  /// Of one that checks in, from then to the daemon's end.
  void expectServed(std::vector<std::string> command) {
    const std::string id = "com.example.foreign";
    command.insert(command.end(), {daemon_.socket(), id});
    {
      Process service(command);
      ASSERT_TRUE(service.printed("registered")) << service.output();
      EXPECT_TRUE(daemon_.logged("ping got pong"));
      expectAskedAndPurged(daemon_, volume_, service, id);
    }
    EXPECT_TRUE(daemon_.logged("interruptionHandler ENTRY"));  // it was killed
    Process again(command);
    ASSERT_TRUE(again.printed("registered")) << again.output();
    daemon_.process().signal(SIGKILL);
    EXPECT_TRUE(again.printed("dropped")) << again.output();
  }

  const Volume volume_{16};
  Daemon daemon_;
};

TEST_F(ForeignServices, OfJeepney) { expectServed({"/usr/bin/python3", "-B", script("jeepney_service.py")}); }

TEST_F(ForeignServices, OfPythonsDbusModule) {
  expectServed({"/usr/bin/python3", "-B", script("dbus_service.py")});
}

TEST(ForeignDeclaredServices, OfLibdbus) {
  const std::string id = "com.example.libdbus";
  const std::string descriptor = std::string(system_descriptors) + "/libdbus.plist";
  writeFile(descriptor, propertyList("<key>KELVANE_ID</key><string>" + id + "</string>"));
  const Volume volume(16);
  Daemon daemon;
  ASSERT_TRUE(daemon.isReady()) << daemon.process().output();
  const std::string socket = daemon.runtimeFolder() + "/services/" + id;
  Process service({built("libdbus_service"), socket});
  ASSERT_TRUE(service.printed("serving")) << service.output();
  expectAskedAndPurged(daemon, volume, service, id);
  std::filesystem::remove(descriptor);
}

}  // namespace
}  // namespace kelvane::tests
