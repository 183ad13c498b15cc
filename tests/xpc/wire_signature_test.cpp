#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "support/protocols.h"

namespace kelvane::tests {
namespace {

using Table = std::vector<std::tuple<std::string, std::string, std::string>>;

template <class Protocol>
Table tableOf() {
  Table table;
  for (const xpc::MethodDescription& method : xpc::RemoteInterface<Protocol>::description().methods)
    table.emplace_back(method.name, method.in, method.out);
  return table;
}

TEST(WireSignatures, OfTheClientsMethodsFollowFromTheirTypes) {
  const auto& interface = xpc::RemoteInterface<KelvaneClientProtocol>::description();
  EXPECT_STREQ(interface.path, "/com/orvel/kelvane");
  EXPECT_STREQ(interface.name, "com.orvel.KelvaneClientProtocol");
  EXPECT_EQ(tableOf<KelvaneClientProtocol>(), (Table{{"clientCheckin", "sha{sv}", "aa{sv}"},
                                                     {"clientPurgeableSpace", "a{sv}", "aa{sv}"},
                                                     {"clientItemizedPurgeableSpace", "a{sv}", "aa{sv}"},
                                                     {"clientPurge", "a{sv}", "aa{sv}"},
                                                     {"clientCancelPurge", "a{sv}", ""},
                                                     {"clientSetState", "avs", ""},
                                                     {"clientGetState", "v", "av"}}));
}

TEST(WireSignatures, OfTheServicesMethodsFollowFromTheirTypes) {
  const auto& interface = xpc::RemoteInterface<KelvaneServiceProtocol>::description();
  EXPECT_STREQ(interface.path, "/com/orvel/kelvane/service");
  EXPECT_STREQ(interface.name, "com.orvel.KelvaneServiceProtocol");
  EXPECT_EQ(tableOf<KelvaneServiceProtocol>(), (Table{{"servicePurgeable", "ia{sv}", "aa{sv}"},
                                                      {"servicePurge", "ia{sv}", "aa{sv}"},
                                                      {"servicePeriodic", "ia{sv}", "aa{sv}"},
                                                      {"serviceCancelPurge", "", ""},
                                                      {"servicePing", "", ""},
                                                      {"serviceNotify", "a{sv}", ""},
                                                      {"serviceCallback", "a{sv}", "aa{sv}"}}));
}

}  // namespace
}  // namespace kelvane::tests
