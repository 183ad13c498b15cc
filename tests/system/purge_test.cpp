// A purge from end to end: a real daemon, real services in processes of their own, real bytes on a real
// volume.

#include <gtest/gtest.h>
#include <filesystem>

#include "common/keys.h"
#include "tests/system/services.h"

namespace kelvane::tests {
namespace {

constexpr std::uint64_t mebibyte = 1 << 20;

std::unique_ptr<Process> startDeclared(const Daemon& daemon, const std::string& ID,
                                       const std::string& folder) {
  auto service = std::make_unique<Process>(
      std::vector<std::string>{built("service_program"), "deletes", ID, folder, "--listen",
                               daemon.runtimeFolder() + "/services/" + ID});
  EXPECT_TRUE(service->printed("registered")) << service->output();
  return service;
}

const Dictionary& pass(const Dictionary& result, int urgency) {
  static const Dictionary none;
  const Dictionary* info =
      result["KELVANE_URGENCY_" + std::to_string(urgency) + "_OPERATION_INFO"].dictionary();
  return info != nullptr ? *info : none;
}

TEST(Purge, ThreeServicesFreeRealBytesOnARealVolume) {
  const Volume volume(64);
  writeFile(std::string(system_descriptors) + "/declared.plist",
            propertyList("<key>KELVANE_ID</key><string>com.example.declared</string>"));
  Daemon daemon;
  ASSERT_TRUE(daemon.isReady()) << daemon.process().output();
  const auto declared = startDeclared(daemon, "com.example.declared", volume.fill("declared", 16, mebibyte));
  const auto first = startService(daemon, "deletes", "com.example.first", volume.fill("first", 16, mebibyte));
  const auto second =
      startService(daemon, "deletes", "com.example.second", volume.fill("second", 16, mebibyte));

  const std::uint64_t before = volume.freeSpace();
  const auto result =
      Client(daemon).purge({{KELVANE_VOLUME, volume.path()}, {KELVANE_AMOUNT, 12 * mebibyte}});
  const std::uint64_t after = volume.freeSpace();

  ASSERT_TRUE(result);
  EXPECT_GE(after - before, 12 * mebibyte);
  EXPECT_EQ((*result)[KELVANE_AMOUNT].unsignedLongLongValue(), after - before);
  EXPECT_EQ((*result)[KELVANE_AMOUNT_REPORTED].unsignedLongLongValue(), after - before);
  EXPECT_EQ((*result)[KELVANE_FREESPACE_BEGIN].unsignedLongLongValue(), before);
  EXPECT_EQ((*result)[KELVANE_FREESPACE_END].unsignedLongLongValue(), after);
  const Dictionary* reporting = pass(*result, 1)[KELVANE_REPORTING_SERVICES].dictionary();
  ASSERT_NE(reporting, nullptr) << Value(*result).description();
  EXPECT_EQ(reporting->size(), 3U);
  std::filesystem::remove(std::string(system_descriptors) + "/declared.plist");
}

TEST(Purge, AServiceThatDiesWhenAskedCostsOnlyItsOwnShare) {
  const Volume volume(32);
  Daemon daemon;
  const auto dying = startService(daemon, "dies", "com.example.dying", volume.fill("dying", 1, mebibyte));
  const auto living =
      startService(daemon, "deletes", "com.example.living", volume.fill("living", 16, mebibyte));
  const auto result = Client(daemon).purge({{KELVANE_VOLUME, volume.path()}, {KELVANE_AMOUNT, 8 * mebibyte}});
  ASSERT_TRUE(result);
  EXPECT_GE((*result)[KELVANE_AMOUNT].unsignedLongLongValue(), 4 * mebibyte);
  EXPECT_TRUE(daemon.logged("interruptionHandler ENTRY"));
  EXPECT_TRUE(Client(daemon).isServed());
}

TEST(Purge, TwoPurgesSentAtOnceRunOneAfterTheOther) {
  const Volume volume(32);
  Daemon daemon;
  const auto service = startService(daemon, "deletes", "com.example.one", volume.fill("one", 16, mebibyte));
  Client first(daemon);
  Client second(daemon);
  const Dictionary request{{KELVANE_VOLUME, volume.path()}, {KELVANE_AMOUNT, mebibyte}, {KELVANE_URGENCY, 1}};
  first.startPurge(request);
  second.startPurge(request);
  const auto one = first.finishPurge();
  const auto two = second.finishPurge();
  ASSERT_TRUE(one && two);
  // Whichever began later began with the space that the earlier one had freed.
  const auto begin = [](const Dictionary& result) {
    return result[KELVANE_FREESPACE_BEGIN].unsignedLongLongValue();
  };
  const auto end = [](const Dictionary& result) {
    return result[KELVANE_FREESPACE_END].unsignedLongLongValue();
  };
  EXPECT_TRUE(begin(*two) == end(*one) || begin(*one) == end(*two));
}

TEST(Purge, AnInfoThatCannotBeServedIsAnsweredWithNothing) {
  const Volume volume(8);
  Daemon daemon;
  Client client(daemon);
  EXPECT_FALSE(client.purge({{KELVANE_AMOUNT, 1}}));
  EXPECT_FALSE(client.purge({{KELVANE_VOLUME, 7}, {KELVANE_AMOUNT, 1}}));
  EXPECT_FALSE(client.purge({{KELVANE_VOLUME, "/no/such/volume"}, {KELVANE_AMOUNT, 1}}));
  EXPECT_FALSE(client.purge({{KELVANE_VOLUME, "/proc"}, {KELVANE_AMOUNT, 1}}));
  const Dictionary missing{{KELVANE_ERROR, "Parameter error, no Amount key in info dict"}};
  EXPECT_EQ(client.purge({{KELVANE_VOLUME, volume.path()}}), missing);
  EXPECT_EQ(client.purge({{KELVANE_VOLUME, volume.path()}, {KELVANE_AMOUNT, "much"}}), missing);
}

TEST(Purge, TheGreatestAmountIsAskedForAndFallsShort) {
  const Volume volume(16);
  Daemon daemon;
  const auto service = startService(daemon, "deletes", "com.example.all", volume.fill("all", 8, mebibyte));
  const auto result =
      Client(daemon).purge({{KELVANE_VOLUME, volume.path()}, {KELVANE_AMOUNT, ~std::uint64_t{0}}});
  ASSERT_TRUE(result);
  EXPECT_EQ((*result)[KELVANE_AMOUNT].unsignedLongLongValue(), 8 * mebibyte);
}

TEST(Purge, UrgenciesOutOfRangeAreTakenAsThree) {
  const Volume volume(8);
  Daemon daemon;
  Client client(daemon);
  for (const Value& urgency : {Value(0), Value(-1), Value(5), Value("3")}) {
    const auto result =
        client.purge({{KELVANE_VOLUME, volume.path()}, {KELVANE_AMOUNT, 0}, {KELVANE_URGENCY, urgency}});
    ASSERT_TRUE(result);
    EXPECT_TRUE(result->contains("KELVANE_URGENCY_3_OPERATION_INFO")) << urgency.description();
    EXPECT_FALSE(result->contains("KELVANE_URGENCY_4_OPERATION_INFO")) << urgency.description();
  }
}

TEST(Purge, NestedAndVeryLargeInfosTravelToTheServicesAndBack) {
  const Volume volume(8);
  Daemon daemon;
  const auto service = startService(daemon, "deletes", "com.example.large", volume.fill("large", 2, 4096));
  Dictionary request{{KELVANE_VOLUME, volume.path()}, {KELVANE_AMOUNT, 4096}, {KELVANE_URGENCY, 1}};
  Dictionary nested;
  for (int depth = 0; depth < 12; ++depth) nested = Dictionary{{"in", nested}};
  request.set("nested", nested);
  request.set("text", std::string(4 << 20, 'x'));
  Dictionary wide;
  for (int i = 0; i < 20'000; ++i) wide.set("key" + std::to_string(i), i);
  request.set("wide", wide);
  Client client(daemon);
  const auto result = client.purge(request);
  ASSERT_TRUE(result) << client.failure();
  EXPECT_EQ((*result)[KELVANE_AMOUNT].unsignedLongLongValue(), 4096U);
  EXPECT_EQ((*result)["nested"], Value(nested));
  EXPECT_EQ((*result)["wide"], Value(wide));
}

}  // namespace
}  // namespace kelvane::tests
