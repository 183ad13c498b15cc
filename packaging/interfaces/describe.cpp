// describe client|service: prints the introspection data of that protocol, which is installed for code
// generators. It is what the object itself answers to Introspect.

#include <cstdio>
#include <string_view>

#include "platform/xpc/introspection.h"
#include "support/protocols.h"

int main(int argc, char** argv) {
  using namespace kelvane;
  const std::string_view which = argc == 2 ? argv[1] : "";
  if (which != "client" && which != "service") {
    std::fprintf(stderr, "usage: describe client|service\n");
    return 2;
  }
  const xpc::InterfaceDescription& description =
      which == "client" ? xpc::RemoteInterface<KelvaneClientProtocol>::description()
                        : xpc::RemoteInterface<KelvaneServiceProtocol>::description();
  return std::fputs(xpc::introspectionXml(description).c_str(), stdout) < 0 || std::fflush(stdout) != 0 ? 1
                                                                                                        : 0;
}
