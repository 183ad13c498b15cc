#include "support/recent_info.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "platform/dispatch/manual_clock.h"
#include "platform/foundation/archive.h"
#include "platform/host/time.h"
#include "tests/support/fake_volumes.h"

namespace kelvane {
namespace {

constexpr std::uint64_t change = 5'242'880;
constexpr double threshold = 120.0;
constexpr std::uint64_t second = 1'000'000'000;
constexpr std::uint64_t space = 1'000'000'000;

KelvaneRecentServiceInfo figure(const Value& amount, std::int64_t seconds_from_now = 0) {
  return KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(
      amount, Date{currentDate().microseconds + seconds_from_now * 1'000'000});
}

KelvaneRecentVolumeInfo volumeOf(RecentServices services, const std::string& name) {
  return KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(std::move(services), space, currentDate(), name);
}

class RecentInfo : public testing::Test {
 protected:
  RecentInfo() {
    volumes_.add("/a", {space, 2 * space, 0, 0});
    volumes_.add("/b", {space, 2 * space, 0, 0});
  }
  void setFree(const std::string& volume, std::uint64_t bytes) {
    volumes_.setSpace(volume, VolumeSpace{bytes, 2 * space, 0, 0});
  }

  ManualClock clock_;
  tests::FakeVolumes volumes_;
};

// --- validation ---

TEST_F(RecentInfo, FreshFiguresOnUnchangedVolumesStay) {
  KelvaneRecentInfo info({{"/a", volumeOf({{"one", figure(1)}}, "/a")}});
  const KelvaneRecentInfo before = info;
  EXPECT_EQ(info.validate(change, threshold), KelvaneRecentInfo::nothing_to_do);
  EXPECT_EQ(info, before);
}

TEST_F(RecentInfo, AFigureStaysForAsLongAsTheThresholdAndNotLonger) {
  KelvaneRecentInfo info({{"/a", volumeOf({{"new", figure(2, 1)}, {"old", figure(1)}}, "/a")}});
  clock_.advance(120 * second);
  EXPECT_EQ(info.validate(change, threshold), KelvaneRecentInfo::nothing_to_do);
  clock_.advance(1000);
  EXPECT_EQ(info.validate(change, threshold), KelvaneRecentInfo::changed);
  EXPECT_EQ(info.volumes().at("/a").services().size(), 1U);
  EXPECT_TRUE(info.volumes().at("/a").services().contains("new"));
}

TEST_F(RecentInfo, AFigureFromTheFutureIsDropped) {
  KelvaneRecentInfo info({{"/a", volumeOf({{"early", figure(2, 1)}, {"now", figure(1)}}, "/a")}});
  EXPECT_EQ(info.validate(change, threshold), KelvaneRecentInfo::changed);
  EXPECT_FALSE(info.volumes().at("/a").services().contains("early"));
}

TEST_F(RecentInfo, AVolumeWhoseFreeSpaceMovedByMoreThanTheNumberLosesItsFiguresUpwardsAndDownwards) {
  for (const bool up : {true, false}) {
    KelvaneRecentInfo info(
        {{"/a", volumeOf({{"one", figure(1)}}, "/a")}, {"/b", volumeOf({{"one", figure(1)}}, "/b")}});
    setFree("/a", up ? space + change : space - change);
    EXPECT_EQ(info.validate(change, threshold), KelvaneRecentInfo::nothing_to_do);
    setFree("/a", up ? space + change + 1 : space - change - 1);
    EXPECT_EQ(info.validate(change, threshold), KelvaneRecentInfo::changed);
    EXPECT_FALSE(info.volumes().contains("/a"));
    EXPECT_TRUE(info.volumes().contains("/b"));
  }
}

TEST_F(RecentInfo, ARecordOfWhichNothingIsLeftIsInvalid) {
  KelvaneRecentInfo info({{"/a", volumeOf({{"one", figure(1)}}, "/a")}});
  clock_.advance(121 * second);
  EXPECT_EQ(info.validate(change, threshold), KelvaneRecentInfo::invalid);
  EXPECT_TRUE(info.volumes().empty());
  EXPECT_EQ(KelvaneRecentInfo({}).validate(change, threshold), KelvaneRecentInfo::invalid);
}

TEST_F(RecentInfo, AVolumeWithoutAFigureIsDropped) {
  KelvaneRecentInfo info({{"/a", volumeOf({{"one", figure(1)}}, "/a")}, {"/b", volumeOf({}, "/b")}});
  EXPECT_EQ(info.validate(change, threshold), KelvaneRecentInfo::changed);
  EXPECT_FALSE(info.volumes().contains("/b"));
}

TEST_F(RecentInfo, AVolumeUnderAnothersNameMakesTheWholeRecordInvalid) {
  KelvaneRecentInfo info(
      {{"/a", volumeOf({{"one", figure(1)}}, "/b")}, {"/b", volumeOf({{"one", figure(1)}}, "/b")}});
  EXPECT_EQ(info.validate(change, threshold), KelvaneRecentInfo::invalid);
  EXPECT_TRUE(info.volumes().empty());
}

TEST_F(RecentInfo, AFigureThatReplacedAnOldOneIsJudgedByItsOwnAge) {
  KelvaneRecentInfo info({{"/a", volumeOf({{"one", figure(1)}}, "/a")}});
  clock_.advance(100 * second);
  info.volumes().at("/a").setService("one", figure(2));
  clock_.advance(100 * second);
  EXPECT_EQ(info.validate(change, threshold), KelvaneRecentInfo::nothing_to_do);
  EXPECT_EQ(info.volumes().at("/a").services().at("one").amount(), Value(2));
  clock_.advance(21 * second);
  EXPECT_EQ(info.validate(change, threshold), KelvaneRecentInfo::invalid);
}

// --- archives ---

Data dataOf(const std::string& bytes) { return Data(Data::Bytes(bytes.begin(), bytes.end())); }

TEST_F(RecentInfo, AnArchiveIsLaidOutByteByByte) {
  const KelvaneRecentInfo info(
      {{"/a", KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo(
                  {{"x", KelvaneRecentServiceInfo::kelvaneRecentServiceInfo(std::uint64_t{300}, Date{-1})},
                   {"yy", KelvaneRecentServiceInfo::kelvaneRecentServiceInfo("?", Date{2})}},
                  200, Date{1}, "/a")}});
  using namespace std::string_literals;
  EXPECT_EQ(archivedData(info), dataOf("KVR\x01"
                                       "\x01"                     // one volume
                                       "\x02/a\xc8\x01\x02"       // its name, 200 bytes free, at 1
                                       "\x02"                     // two services
                                       "\x01x\x01\x04\xac\x02"    // at -1, unsigned 300
                                       "\x02yy\x04\x05\x01?"s));  // at 2, the string "?"
}

TEST_F(RecentInfo, EveryRecordComesBackFromItsArchive) {
  std::mt19937 random(7);  // NOLINT: the same records on every run
  const std::vector<Value> amounts = {0,
                                      -1,
                                      std::uint64_t{~0ULL},
                                      1.5,
                                      true,
                                      "text",
                                      Data({1, 2}),
                                      Date{5},
                                      Array{1, "a"},
                                      Dictionary{{"k", Array{}}}};
  for (int round = 0; round < 200; ++round) {
    RecentVolumes volumes;
    for (auto v = random() % 4; v > 0; --v) {
      RecentServices services;
      for (auto s = random() % 5; s > 0; --s) {
        services.insert_or_assign(
            "service" + std::to_string(random() % 100),
            figure(amounts[random() % amounts.size()], static_cast<std::int64_t>(random() % 500)));
      }
      const std::string name = "/v" + std::to_string(random() % 50);
      volumes.insert_or_assign(name, volumeOf(services, name));
    }
    const KelvaneRecentInfo info(volumes);
    const auto again = unarchivedRecentInfo(archivedData(info));
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(*again, info);
  }
}

class HostileRecord : public RecentInfo {
 protected:
  const KelvaneRecentInfo info_{{{"/a", volumeOf({{"one", figure(Array{1, "b"})}, {"two", figure(7)}}, "/a")},
                                 {"/b", volumeOf({}, "/b")}}};
};

TEST_F(HostileRecord, EveryTruncationAndEveryTrailingByteYieldsNothing) {
  const Data::Bytes whole = archivedData(info_).bytes();
  for (std::size_t size = 0; size < whole.size(); ++size)
    EXPECT_EQ(unarchivedRecentInfo(Data({whole.begin(), whole.begin() + static_cast<long>(size)})), nullptr);
  Data::Bytes longer = whole;
  longer.push_back(0);
  EXPECT_EQ(unarchivedRecentInfo(Data(longer)), nullptr);
}

TEST_F(HostileRecord, AChangedByteYieldsNothingOrARecordOfThatVeryArchive) {
  const Data::Bytes whole = archivedData(info_).bytes();
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (int byte = 0; byte < 256; ++byte) {
      Data::Bytes changed = whole;
      changed[at] = static_cast<std::uint8_t>(byte);
      const auto record = unarchivedRecentInfo(Data(changed));
      if (record == nullptr) continue;
      EXPECT_EQ(archivedData(*record).bytes(), changed);
    }
  }
}

TEST_F(HostileRecord, ClaimsOfABillionEntriesYieldNothing) {
  const std::string billion = "\x80\x94\xeb\xdc\x03";
  EXPECT_EQ(unarchivedRecentInfo(dataOf("KVR\x01" + billion)), nullptr);
  EXPECT_EQ(unarchivedRecentInfo(dataOf("KVR\x01\x01\x02/a\x01\x02" + billion)), nullptr);
  EXPECT_EQ(unarchivedRecentInfo(dataOf("KVR\x01\x01" + billion)), nullptr);
}

TEST_F(HostileRecord, AnAmountThatNestsAHundredThousandDeepYieldsNothing) {
  std::string deep;
  for (int i = 0; i < 100'000; ++i) deep += "\x08\x01";
  EXPECT_EQ(unarchivedRecentInfo(dataOf("KVR\x01\x01\x02/a\x01\x02\x01\x01x\x02" + deep + "\x01")), nullptr);
}

TEST_F(HostileRecord, NamesThatRepeatOrDescendYieldNothing) {
  using namespace std::string_literals;
  EXPECT_EQ(unarchivedRecentInfo(dataOf("KVR\x01\x02\x01y\0\0\0\x01x\0\0\0"s)), nullptr);
  EXPECT_EQ(unarchivedRecentInfo(dataOf("KVR\x01\x02\x01x\0\0\0\x01x\0\0\0"s)), nullptr);
  EXPECT_NE(unarchivedRecentInfo(dataOf("KVR\x01\x02\x01x\0\0\0\x01y\0\0\0"s)), nullptr);
}

TEST_F(HostileRecord, AnotherVersionOrAnotherKindOfArchiveYieldsNothing) {
  Data::Bytes other = archivedData(info_).bytes();
  other[3] = 2;
  EXPECT_EQ(unarchivedRecentInfo(Data(other)), nullptr);
  EXPECT_EQ(unarchivedRecentInfo(archivedData(Value(Dictionary{{"a", 1}}))), nullptr);
  EXPECT_EQ(unarchivedRecentInfo(Data()), nullptr);
}

TEST_F(HostileRecord, AnAmountTooDeepForArchivesHasNone) {
  Value deep = 1;
  for (std::size_t i = 0; i <= archive_depth_limit; ++i) deep = Array{deep};
  EXPECT_TRUE(
      archivedData(KelvaneRecentInfo({{"/a", volumeOf({{"x", figure(deep)}}, "/a")}})).bytes().empty());
}

}  // namespace
}  // namespace kelvane
