// Clients made with other libraries send the same requests to a real daemon, and must get exactly the same
// answers.

#include <gtest/gtest.h>
#include <fstream>
#include <string>
#include <vector>

#include "tests/system/daemon.h"

namespace kelvane::tests {
namespace {

constexpr std::uint64_t mebibyte = 1 << 20;

std::string script(const std::string& name) {
  return std::string(KELVANE_SOURCE_FOLDER) + "/tests/peers/" + name;
}

std::string machineID() {
  std::ifstream file("/etc/machine-id");
  std::string text;
  file >> text;
  return text;
}

class ForeignClients : public testing::Test {
 protected:
  void expectAllAnswered(std::vector<std::string> client) {
    ASSERT_TRUE(service_.printed("registered")) << service_.output();
    client.insert(client.end(), {daemon_.socket(), volume_.path()});
    const std::uint64_t before = volume_.freeSpace();
    const Finished all = run(client);
    EXPECT_EQ(all.status, 0) << all.output;
    EXPECT_EQ(all.output,
              "set\n"
              "state kept\n"
              "state nothing\n"
              "purgeable 8388608\n"
              "purged 2097152\n"
              "cancelled\n"
              "error org.freedesktop.DBus.Error.UnknownMethod\n"
              "error org.freedesktop.DBus.Error.InvalidArgs\n"
              "pong\n"
              "machine " +
                  machineID() + "\ndescribed\n");
    EXPECT_EQ(volume_.freeSpace() - before, 2 * mebibyte);
  }

  const Volume volume_{16};
  Daemon daemon_;
  Process service_{{built("service_program"), "deletes", "com.example.files",
                    volume_.fill("files", 8, mebibyte), "--daemon", daemon_.socket()}};
};

TEST_F(ForeignClients, OfLibdbus) { expectAllAnswered({built("libdbus_client")}); }
TEST_F(ForeignClients, OfPythonsDbusModule) {
  expectAllAnswered({"/usr/bin/python3", "-B", script("dbus_client.py")});
}
TEST_F(ForeignClients, OfJeepney) {
  expectAllAnswered({"/usr/bin/python3", "-B", script("jeepney_client.py")});
}
TEST_F(ForeignClients, OfGdbus) { expectAllAnswered({"/usr/bin/python3", "-B", script("gio_client.py")}); }

}  // namespace
}  // namespace kelvane::tests
