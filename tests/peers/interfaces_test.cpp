// The descriptions that are installed for code generators are those of the objects.

#include <gtest/gtest.h>
#include <string>

#include "tests/system/daemon.h"

namespace kelvane::tests {
namespace {

Finished compare(const std::string& socket, const std::string& object, const std::string& interface) {
  return run({"/usr/bin/python3", "-B", KELVANE_SOURCE_FOLDER "/tests/peers/same_interface.py", socket,
              object, interface, KELVANE_INTERFACES "/" + interface + ".xml"});
}

TEST(InstalledInterfaces, AreWhatTheDaemonAnswersToIntrospect) {
  Daemon daemon;
  const Finished same = compare(daemon.socket(), "/com/orvel/kelvane", "com.orvel.KelvaneClientProtocol");
  EXPECT_EQ(same.status, 0) << same.output;
}

TEST(InstalledInterfaces, AreWhatAServiceAnswersToIntrospect) {
  const Folder folder;
  const std::string socket = folder.path() + "/service.sock";
  Process service(
      {built("service_program"), "deletes", "com.example.service", folder.path(), "--listen", socket});
  ASSERT_TRUE(service.printed("registered")) << service.output();
  const Finished same = compare(socket, "/com/orvel/kelvane/service", "com.orvel.KelvaneServiceProtocol");
  EXPECT_EQ(same.status, 0) << same.output;
}

}  // namespace
}  // namespace kelvane::tests
