// What could be freed, and what is remembered: a real daemon, real services, a real volume, a real file.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <csignal>
#include <filesystem>
#include <functional>

#include "common/keys.h"
#include "support/recent_info.h"
#include "tests/system/daemon.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;

class Purgeable : public testing::Test {
 protected:
  [[nodiscard]] std::unique_ptr<Daemon> daemon() const {
    return std::make_unique<Daemon>(built("kelvaned"), std::vector{"STATE_DIRECTORY=" + state_.path()});
  }
  [[nodiscard]] std::unique_ptr<Process> service(const Daemon& daemon, const std::string& name,
                                                 const std::string& behaviour = "deletes") const {
    const std::string folder = volume_.path() + "/" + name;
    if (!fs::exists(folder)) static_cast<void>(volume_.fill(name, 4, 4096));
    auto process = std::make_unique<Process>(std::vector<std::string>{
        built("service_program"), behaviour, "com.example." + name, folder, "--daemon", daemon.socket()});
    EXPECT_TRUE(process->printed("registered"));
    return process;
  }
  [[nodiscard]] Dictionary question() const { return {{KELVANE_VOLUME, volume_.path()}}; }
  [[nodiscard]] Dictionary resultOf(Dictionary figures, std::int64_t total) const {
    figures.set(KELVANE_TOTAL_AVAILABLE, total);
    figures.set(KELVANE_VOLUME, volume_.path());
    return figures;
  }
  [[nodiscard]] std::string settingsFile() const { return state_.path() + "/com.orvel.kelvane.db"; }

  const Volume volume_{8};
  const Folder state_;
};

TEST_F(Purgeable, ServicesSayWhatTheyCouldFreeAndItIsWhatTheirFoldersHold) {
  const auto it = daemon();
  const auto one = service(*it, "one");
  const auto two = service(*it, "two");
  EXPECT_EQ(Client(*it).purgeableSpace(question()),
            resultOf({{"com.example.one", std::uint64_t{16384}}, {"com.example.two", std::uint64_t{16384}}},
                     32768));
  EXPECT_TRUE(one->printed("questioned 3"));
}

TEST_F(Purgeable, AfterARestartYoungFiguresOnAnUnchangedVolumeAreCountedWithoutAsking) {
  auto it = daemon();
  auto one = service(*it, "one");
  const auto first = Client(*it).purgeableSpace(question());
  ASSERT_EQ(first, resultOf({{"com.example.one", std::uint64_t{16384}}}, 16384));
  it->process().signal(SIGTERM);
  static_cast<void>(it->process().wait());
  it = daemon();
  one = service(*it, "one");
  EXPECT_EQ(Client(*it).purgeableSpace(question()), first);
  EXPECT_TRUE(it->logged("cachedInfo: using all cached info"));
  EXPECT_EQ(one->output().find("questioned"), std::string::npos);
}

TEST_F(Purgeable, FiguresAreAskedForAgainWhenTheVolumesFreeSpaceHasMoved) {
  const auto it = daemon();
  const auto one = service(*it, "one");
  Client client(*it);
  ASSERT_EQ(client.purgeableSpace(question()), resultOf({{"com.example.one", std::uint64_t{16384}}}, 16384));
  static_cast<void>(volume_.fill("other", 6, 1 << 20));
  writeFile(volume_.path() + "/one/fresh", std::string(1000, 'x'));
  EXPECT_EQ(client.purgeableSpace(question()), resultOf({{"com.example.one", std::uint64_t{17384}}}, 17384));
}

TEST_F(Purgeable, AServiceThatDiesWhileItIsAskedCostsItsOwnFigureOnly) {
  const auto it = daemon();
  const auto one = service(*it, "one");
  const auto dying = service(*it, "dying", "dies");
  Client client(*it);
  EXPECT_EQ(client.purgeableSpace(question()), resultOf({{"com.example.one", std::uint64_t{16384}}}, 16384));
  EXPECT_TRUE(client.isServed());
}

TEST_F(Purgeable, ARequestWithoutAServedVolumeIsANilReply) {
  const auto it = daemon();
  Client client(*it);
  EXPECT_EQ(client.purgeableSpace({}), std::nullopt);
  EXPECT_EQ(client.purgeableSpace({{KELVANE_VOLUME, "/nowhere"}}), std::nullopt);
  EXPECT_EQ(client.failure(), "");
}

TEST_F(Purgeable, WhateverAClientStoresUnderTheRecordsKeyTheQuestionIsAnswered) {
  const auto it = daemon();
  const auto one = service(*it, "one");
  Client client(*it);
  std::string deep = "KVR\x01\x01\x02/a\x01\x02\x01\x01x\x02";
  for (int i = 0; i < 100'000; ++i) deep += "\x08\x01";
  const auto data = [](const std::string& bytes) { return Value(Data({bytes.begin(), bytes.end()})); };
  const Data truncated = archivedData(
      KelvaneRecentInfo({{"/a", KelvaneRecentVolumeInfo::kelvaneRecentVolumeInfo({}, 1, Date{}, "/a")}}));
  for (const Value& stored :
       {data("no archive"), data("KVR\x01\x80\x94\xeb\xdc\x03"), data(deep), Value("text"),
        Value(Data({truncated.bytes().begin(), truncated.bytes().end() - 1}))}) {
    client.setState(stored, KELVANE_RECENT_SERVICE_STATS);
    EXPECT_EQ(client.purgeableSpace(question()),
              resultOf({{"com.example.one", std::uint64_t{16384}}}, 16384));
  }
}

// --- the settings file ---

TEST_F(Purgeable, ASettingsFileOfAnotherProgramIsSetAsideAndTheStateBegunAnew) {
  writeFile(settingsFile(), "what another program keeps here");
  const auto it = daemon();
  Client client(*it);
  client.setState("value", "key");
  EXPECT_EQ(client.state("key"), Value("value"));
  EXPECT_TRUE(fs::exists(settingsFile() + ".damaged-1"));
}

TEST_F(Purgeable, ATruncatedSettingsFileIsSetAsideAndTheStateBegunAnew) {
  {
    const auto it = daemon();
    Client client(*it);
    for (int i = 0; i < 50; ++i) client.setState(std::string(4000, 'x'), "key" + std::to_string(i));
    it->process().signal(SIGTERM);
    static_cast<void>(it->process().wait());
  }
  fs::remove(settingsFile() + "-wal");
  fs::remove(settingsFile() + "-shm");
  fs::resize_file(settingsFile(), 5000);
  const auto it = daemon();
  Client client(*it);
  client.setState("value", "key");
  EXPECT_EQ(client.state("key"), Value("value"));
  EXPECT_TRUE(fs::exists(settingsFile() + ".damaged-1"));
}

TEST_F(Purgeable, AStateFolderThatCannotBeUsedLeavesADaemonThatServesAndSaysSo) {
  writeFile(state_.path() + "/file", "");
  Daemon it(built("kelvaned"), {"STATE_DIRECTORY=" + state_.path() + "/file"});
  const auto one = service(it, "one");
  Client client(it);
  EXPECT_TRUE(it.logged("init Unable to initialize user defaults!"));
  EXPECT_EQ(client.state(KELVANE_CACHE_ENABLED), Value(true));
  EXPECT_EQ(client.purgeableSpace(question()), resultOf({{"com.example.one", std::uint64_t{16384}}}, 16384));
}

TEST_F(Purgeable, ASettingsFileOnAReadOnlyVolumeIsLeftAsItIsAndIsUsedWhenItCanBeWrittenAgain) {
  const Volume volume(4);
  const auto remount = [&](unsigned long flags) {
    return ::mount(nullptr, volume.path().c_str(), nullptr, MS_REMOUNT | flags, nullptr) == 0;
  };
  const auto life = [&](const std::function<void(Daemon&, Client&)>& use) {
    Daemon it(built("kelvaned"), {"STATE_DIRECTORY=" + volume.path()});
    {
      Client client(it);
      use(it, client);
    }
    it.process().signal(SIGTERM);
    static_cast<void>(it.process().wait());
  };
  life([](Daemon&, Client& client) { client.setState("value", "key"); });
  ASSERT_TRUE(remount(MS_RDONLY));
  life([](Daemon& it, Client& client) {
    EXPECT_TRUE(it.logged("init Unable to initialize user defaults!"));
    client.setState("other", "key");
    EXPECT_EQ(client.state("key"), Value());
    EXPECT_EQ(client.state(KELVANE_CACHE_ENABLED), Value(true));
  });
  ASSERT_TRUE(remount(0));
  life([](Daemon&, Client& client) { EXPECT_EQ(client.state("key"), Value("value")); });
}

TEST_F(Purgeable, OnAFullVolumeWhatWasStoredBeforeStaysAndTheDaemonGoesOn) {
  const Volume small(1);
  const Daemon it(built("kelvaned"), {"STATE_DIRECTORY=" + small.path()});
  Client client(it);
  client.setState("before", "key");
  client.setState(std::string(4 << 20, 'x'), "large");
  EXPECT_TRUE(client.isServed());
  EXPECT_EQ(client.state("key"), Value("before"));
  client.setState(Value(), "large");
  client.setState("after", "key");
  EXPECT_EQ(client.state("key"), Value("after"));
}

}  // namespace
}  // namespace kelvane::tests
