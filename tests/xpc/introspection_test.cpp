#include "platform/xpc/introspection.h"

#include <gtest/gtest.h>
#include <fstream>
#include <sstream>

#include "support/protocols.h"

namespace kelvane::tests {
namespace {

std::string contentOf(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

// What is installed for code generators. After a change of an interface, the test's output is the new file.
TEST(Introspection, TheInstalledFilesSayWhatIsSpoken) {
  for (const xpc::InterfaceDescription* interface :
       {&xpc::RemoteInterface<KelvaneClientProtocol>::description(),
        &xpc::RemoteInterface<KelvaneServiceProtocol>::description()}) {
    const std::string path = std::string(INTERFACE_FILES "/") + interface->name + ".xml";
    EXPECT_EQ(contentOf(path), xpc::introspectionXml(*interface)) << path;
  }
}

TEST(Introspection, EveryArgumentAndResultHasAName) {
  for (const xpc::InterfaceDescription* interface :
       {&xpc::RemoteInterface<KelvaneClientProtocol>::description(),
        &xpc::RemoteInterface<KelvaneServiceProtocol>::description()}) {
    EXPECT_EQ(xpc::introspectionXml(*interface).find("<arg type"), std::string::npos) << interface->name;
  }
}

}  // namespace
}  // namespace kelvane::tests
