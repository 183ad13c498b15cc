// Events of the file-system stream, and the purges that are made of them.

#include <gtest/gtest.h>
#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/statistics.h"
#include "tests/daemon/daemon_fixture.h"
#include "tests/dispatch/occasion.h"
#include "tests/operations/answer.h"
#include "tests/operations/fake_service.h"

namespace kelvane {
namespace {

constexpr std::uint64_t low_disk = 0x4;
constexpr std::uint64_t very_low_disk = 0x200;
constexpr std::uint64_t quota = 0x1000;
constexpr VolumeSpace low{1 << 20, std::uint64_t{1} << 40, 0, 0};

class LowDisk : public tests::DaemonFixture {
 protected:
  LowDisk() : it_(kelvane()) {
    forgetStatistics();
    service_->purges([](std::uint64_t asked) { return asked; });
    dispatch_sync(it_->collection_queue(), [&] { it_->services()["cache"] = service_->record(); });
  }
  void TearDown() override {
    service_.reset();
    std::exchange(it_, nullptr)->setListener(nullptr);
    DaemonFixture::TearDown();
  }
  void event(std::uint64_t flags) { handle({{"_Flags", flags}}); }
  /// Returns when all purges of the event are done.
  void handle(const Dictionary& event) {
    tests::Answer<bool> handled;
    it_->handleVFSStreamXPCEvent(event, [handled]() mutable { handled.come(true); });
    handled.await();
  }
  /// The volume of each purge, in order; each is met at once, in its first pass.
  [[nodiscard]] std::vector<std::string> purged() const {
    std::vector<std::string> volumes;
    for (const auto& purge : service_->purgesAsked()) volumes.push_back(*purge.info[KELVANE_VOLUME].string());
    return volumes;
  }
  static std::int64_t counted(const std::string& key) { return statisticsOf(kelvane_domain).counters[key]; }

  std::unique_ptr<tests::FakeService> service_ = std::make_unique<tests::FakeService>("cache");
  std::shared_ptr<Kelvane> it_;
};

TEST_F(LowDisk, BothLowAndVeryLowIsTreatedAsLow) {
  volumes_.add("/data", low);
  event(low_disk | very_low_disk);
  EXPECT_EQ(purged(), std::vector<std::string>{"/data"});
  EXPECT_EQ(log_.count(3, "handleVFSStreamXPCEvent: caught VQ_LOWDISK"), 1U);
  EXPECT_EQ(log_.count("VQ_VERYLOWDISK"), 0U);
  EXPECT_EQ(counted("KV_LOWDISK_EVENT"), 1);
  EXPECT_EQ(counted("KV_VERYLOWDISK_EVENT"), 0);
}

TEST_F(LowDisk, VeryLowIsCountedUnderItsOwnKeyAndComesBeforeQuota) {
  volumes_.add("/data", low);
  event(very_low_disk | quota);
  EXPECT_EQ(log_.count(3, "handleVFSStreamXPCEvent: caught VQ_VERYLOWDISK"), 1U);
  EXPECT_EQ(log_.count("VFS_QUOTA"), 0U);
  EXPECT_EQ(counted("KV_VERYLOWDISK_EVENT"), 1);
}

TEST_F(LowDisk, AnEventWithoutAKnownBitPurgesALowVolumeAndIsCountedUnderNoKey) {
  volumes_.add("/data", low);
  std::size_t events = 0;
  for (const Dictionary& event : {Dictionary{{"_Flags", 0}}, Dictionary{{"_Flags", 0x8}}, Dictionary{},
                                  Dictionary{{"_Flags", "0x4"}}}) {
    handle(event);
    EXPECT_EQ(purged().size(), ++events) << "one request for each event";
  }
  EXPECT_EQ(log_.count("caught"), 0U);
  for (const auto& [key, count] : statisticsOf(kelvane_domain).counters)
    EXPECT_TRUE(!key.empty() && !key.starts_with("KV_")) << key;
}

TEST_F(LowDisk, FlagsThatAreNoUnsignedIntegerCountAsMissing) {
  volumes_.add("/data", low);
  const Value none[] = {-1,       std::int64_t{-4},          4.0,    1e30, "4", true,
                        Array{4}, Dictionary{{"_Flags", 4}}, Date{4}};
  std::size_t events = 0;
  for (const Value& flags : none) {
    handle({{"_Flags", flags}});
    EXPECT_EQ(purged().size(), ++events) << flags.description();
  }
  EXPECT_EQ(log_.count("caught"), 0U);
}

TEST_F(LowDisk, FlagsAreAnIntegerOfAnyTypeThatIsNotNegative) {
  volumes_.add("/data", low);
  const Value all[] = {std::uint8_t{4}, std::int64_t{4}, std::uint64_t{4},
                       std::uint64_t{0x8000'0000'0000'0004}};
  for (const Value& flags : all) handle({{"_Flags", flags}});
  EXPECT_EQ(counted("KV_LOWDISK_EVENT"), 4);
}

TEST_F(LowDisk, WithoutALowVolumeNothingIsPurgedAndNothingCounted) {
  volumes_.add("/data");
  event(low_disk);
  EXPECT_TRUE(purged().empty());
  EXPECT_EQ(log_.count(5, "handleVFSStreamXPCEvent: No volumes report low disk space, skipping purge"), 1U);
  EXPECT_EQ(counted("KV_LOWDISK_EVENT"), 0);
}

TEST_F(LowDisk, TheRequestForTheSecondVolumeIsMadeOnceTheFirstPurgeIsOver) {
  volumes_.add("/a", low);
  volumes_.add("/b", low);
  tests::Answer<tests::FakeService::ResultReply> first;
  service_->onPurge(
      [first, is_first = std::make_shared<std::atomic<bool>>(true)](
          const tests::FakeService::Purge& purge, const tests::FakeService::ResultReply& reply) mutable {
        if (is_first->exchange(false)) return first.come(reply);
        reply(Dictionary{{KELVANE_AMOUNT, purge.asked()}});
      });
  tests::Answer<bool> handled;
  it_->handleVFSStreamXPCEvent({{"_Flags", low_disk}}, [handled]() mutable { handled.come(true); });
  const auto reply = first.await();
  test::letThePoolWork();
  EXPECT_EQ(log_.count("initWithInfo:services: services:"), 1U);
  EXPECT_FALSE(handled.hasCome());
  reply(Dictionary{{KELVANE_AMOUNT, std::uint64_t{262'144'000}}});
  EXPECT_TRUE(handled.await());
  EXPECT_EQ(log_.count("initWithInfo:services: services:"), 2U);
  EXPECT_EQ(purged(), (std::vector<std::string>{"/a", "/b"}));
}

TEST_F(LowDisk, TwoLowVolumesMakeTwoRequestsInTheirOrderEachFor250MiBWithATimeoutOf300Seconds) {
  volumes_.add("/one", low);
  volumes_.add("/plenty");
  volumes_.add("/two", low);
  event(low_disk);
  EXPECT_EQ(purged(), (std::vector<std::string>{"/one", "/two"}));
  for (const auto& purge : service_->purgesAsked()) {
    Dictionary request = purge.info;
    request.remove(KELVANE_VOLUME);
    request.remove(KELVANE_FREESPACE_BEGIN);  // which the purge adds
    EXPECT_EQ(request, (Dictionary{{KELVANE_AMOUNT, 262'144'000},
                                   {KELVANE_ASYNC, true},
                                   {KELVANE_PURGE_TIMEOUT, 300},
                                   {KELVANE_QUOTA_EVENT, true}}));
  }
  EXPECT_EQ(counted("KV_LOWDISK_EVENT"), 1);
}

TEST_F(LowDisk, VolumesArePurgedInTheOrderOfTheMountTableWhateverTheirNames) {
  for (const char* volume : {"/m", "/z", "/a", "/k"}) volumes_.add(volume, low);
  event(low_disk);
  EXPECT_EQ(purged(), (std::vector<std::string>{"/m", "/z", "/a", "/k"}));
}

TEST_F(LowDisk, AnEventIsCountedWhenItsLastPurgeIsOver) {
  volumes_.add("/one", low);
  volumes_.add("/two", low);
  std::vector<std::int64_t> counted_meanwhile;
  service_->purges([&](std::uint64_t asked) {
    counted_meanwhile.push_back(counted("KV_LOWDISK_EVENT"));
    return asked;
  });
  event(low_disk);
  EXPECT_EQ(counted_meanwhile, (std::vector<std::int64_t>{0, 0}));
  EXPECT_EQ(counted("KV_LOWDISK_EVENT"), 1);
}

TEST_F(LowDisk, EveryRequestIsAQuotaEventWhateverTheEvent) {
  volumes_.add("/data", low);
  volumes_.setOverQuota(std::vector<std::string>{"/data"});
  for (const std::uint64_t flags : {low_disk, very_low_disk, quota, std::uint64_t{0}}) event(flags);
  ASSERT_EQ(service_->purgesAsked().size(), 4U);
  for (const auto& purge : service_->purgesAsked()) EXPECT_EQ(purge.info[KELVANE_QUOTA_EVENT], Value(true));
}

TEST_F(LowDisk, AServiceThatOptedOutOfQuotaEventsIsLeftOutOfEveryPurgeMadeOfAnEvent) {
  volumes_.add("/data", low);
  dispatch_sync(it_->collection_queue(), [&] { it_->services()["cache"]->setNoQuota(true); });
  event(low_disk);
  EXPECT_TRUE(purged().empty());
  EXPECT_EQ(counted("KV_LOWDISK_EVENT"), 1);
}

TEST_F(LowDisk, AQuotaEventPurgesTheVolumesOnWhichTheDaemonsUserIsOverQuota) {
  volumes_.add("/data");
  volumes_.add("/low", low);
  volumes_.setOverQuota(std::vector<std::string>{"/data"});
  event(quota);
  EXPECT_EQ(purged(), std::vector<std::string>{"/data"});
  EXPECT_EQ(log_.count(3, "handleVFSStreamXPCEvent: caught VFS_QUOTA"), 1U);
  EXPECT_EQ(counted("KV_VFS_QUOTA_EVENT"), 1);
}

TEST_F(LowDisk, AQuotaEventAsksForTheQuotaOfTheUserThatTheDaemonRunsAs) {
  event(quota);
  EXPECT_EQ(volumes_.askedFor(), ::getuid());
  if (::geteuid() != 0) return;  // not root, so it was not root's quota
  ASSERT_EQ(::setreuid(12345, 0), 0);
  event(quota);
  ASSERT_EQ(::setreuid(0, 0), 0);
  EXPECT_EQ(volumes_.askedFor(), 12345U);
}

TEST_F(LowDisk, AQuotaEventWhoseQueryIsEmptyDoesNotFallBackToTheLowVolumes) {
  volumes_.add("/low", low);
  volumes_.setOverQuota(std::vector<std::string>{});
  event(quota);
  EXPECT_TRUE(purged().empty());
  EXPECT_EQ(log_.count(5, "handleVFSStreamXPCEvent: No volumes report low disk space, skipping purge"), 1U);
  EXPECT_EQ(counted("KV_VFS_QUOTA_EVENT"), 0);
}

TEST_F(LowDisk, AQuotaEventWhoseQueryYieldsNothingFallsBackToTheLowVolumes) {
  volumes_.add("/low", low);
  volumes_.setOverQuota(std::nullopt);
  event(quota);
  EXPECT_EQ(purged(), std::vector<std::string>{"/low"});
  EXPECT_EQ(counted("KV_VFS_QUOTA_EVENT"), 1);
}

}  // namespace
}  // namespace kelvane
