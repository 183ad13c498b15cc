#include "support/service_record.h"

#include <gtest/gtest.h>

#include <thread>

namespace kelvane::tests {
namespace {

TEST(ServiceRecord, BeginsWithAnIDAndNothingElse) {
  const KVService service("com.example.cache");
  EXPECT_EQ(service.ID(), "com.example.cache");
  EXPECT_FALSE(service.doesPurge() || service.doesPeriodic() || service.doNotQuery() || service.noQuota() ||
               service.multiUserOnly());
  EXPECT_FALSE(service.desiredNotifications());
  EXPECT_FALSE(service.endpoint());
  EXPECT_EQ(service.xpcConn(), nullptr);
}

TEST(ServiceRecord, ASetWithoutNamesIsNotTheSameAsNoSet) {
  KVService service("a");
  EXPECT_FALSE(service.desiresNotification("KELVANE_CACHE_ENABLED"));
  service.setDesiredNotifications(std::set<std::string>());
  ASSERT_TRUE(service.desiredNotifications());
  EXPECT_TRUE(service.desiredNotifications()->empty());
  service.setDesiredNotifications(std::set<std::string>{"KELVANE_CACHE_ENABLED"});
  EXPECT_TRUE(service.desiresNotification("KELVANE_CACHE_ENABLED"));
  EXPECT_FALSE(service.desiresNotification("other"));
  service.setDesiredNotifications(std::nullopt);
  EXPECT_FALSE(service.desiredNotifications());
}

TEST(ServiceRecord, IsReadWhileACheckInChangesIt) {
  KVService service("a");
  std::thread changer([&] {
    for (int i = 0; i < 1000; ++i) {
      service.setDoesPurge(i % 2 == 0);
      service.setDesiredNotifications(std::set<std::string>{"one", "two"});
      service.setEndpoint({});
      service.setXpcConn(nullptr);
    }
  });
  for (int i = 0; i < 1000; ++i) {
    const auto names = service.desiredNotifications();
    EXPECT_TRUE(!names || names->size() == 2);
    EXPECT_FALSE(service.endpoint());
    EXPECT_EQ(service.xpcConn(), nullptr);
  }
  changer.join();
  EXPECT_FALSE(service.doesPurge());
}

}  // namespace
}  // namespace kelvane::tests
