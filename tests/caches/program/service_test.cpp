// The real service behind real sockets, called by a real daemon, on a real volume.

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <csignal>
#include <filesystem>
#include <thread>

#include "common/keys.h"
#include "tests/caches/program/caches_machine.h"

namespace kelvane::tests {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;

const std::string ages = "2 = \"30d\"\n3 = \"7d\"\n4 = \"1h\"";

Dictionary purgeOf(const CachesMachine& machine, std::uint64_t bytes, int limit, std::uint64_t seconds = 60) {
  return {{KELVANE_VOLUME, machine.volume()},
          {KELVANE_AMOUNT, bytes},
          {KELVANE_URGENCY_LIMIT, limit},
          {KELVANE_PURGE_TIMEOUT, seconds}};
}

std::uint64_t freedIn(const std::optional<Dictionary>& answer) {
  return answer ? (*answer)[KELVANE_AMOUNT].unsignedLongLongValue() : 0;
}

std::uint64_t purgeableOn(const std::string& volume, const std::optional<Dictionary>& answer) {
  EXPECT_TRUE(answer) << volume;
  return answer ? (*answer)[KELVANE_TOTAL_AVAILABLE].unsignedLongLongValue() : 0;
}

TEST(CacheService, FreesOnALowVolumeWhatExplainSaid) {
  const CachesMachine machine(64);
  machine.define("photos", ages);
  machine.fill("photos", 8, mebibyte, 40 * day, "old");
  machine.fill("photos", 4, mebibyte, 10 * day, "middle");
  machine.fill("photos", 2, mebibyte, day, "young");
  const Declared declared({"photos"});
  Daemon daemon;
  CachesService service(machine, daemon, {"photos"});
  const Dictionary explained = machine.explained("photos", 3);
  EXPECT_EQ(explained["bytes"], Value(12 * mebibyte));
  const std::uint64_t before = machine.freeSpace();
  Client client(daemon);
  EXPECT_EQ(freedIn(client.purge(purgeOf(machine, 1 << 30, 3))), 12 * mebibyte) << service.process().output();
  EXPECT_EQ(machine.freeSpace() - before, 12 * mebibyte);
  EXPECT_EQ(machine.countFiles("photos"), 2U) << "the young ones";
}

TEST(CacheService, TakesTheOldestFirstAndNoMoreThanAsked) {
  const CachesMachine machine(64);
  machine.define("photos", ages);
  machine.fill("photos", 8, mebibyte, 80 * day, "oldest");
  machine.fill("photos", 8, mebibyte, 40 * day, "old");
  const Declared declared({"photos"});
  Daemon daemon;
  CachesService service(machine, daemon, {"photos"});
  Client client(daemon);
  EXPECT_EQ(freedIn(client.purge(purgeOf(machine, 8 * mebibyte, 3))), 8 * mebibyte);
  for (const auto& left : fs::directory_iterator(machine.cacheOf("photos")))
    EXPECT_THAT(left.path().filename().string(), testing::Not(HasSubstr("oldest")));
}

TEST(CacheService, SaysWhatItCouldFreeOnTheVolumeOfItsCachesOnly) {
  const CachesMachine machine(64);
  const Volume other(8);
  machine.define("photos", ages);
  machine.fill("photos", 8, mebibyte, 40 * day);
  const Declared declared({"photos"});
  Daemon daemon;
  CachesService service(machine, daemon, {"photos"});
  Client client(daemon);
  EXPECT_EQ(purgeableOn("/home", client.purgeableSpace(
                                     {{KELVANE_VOLUME, machine.volume()}, {KELVANE_URGENCY_LIMIT, 2}})),
            8 * mebibyte);
  EXPECT_EQ(purgeableOn(other.path(),
                        client.purgeableSpace({{KELVANE_VOLUME, other.path()}, {KELVANE_URGENCY_LIMIT, 2}})),
            0U);
}

TEST(CacheService, EndsWhenNobodyCallsAndIsStartedByTheNextCall) {
  const CachesMachine machine(64);
  machine.define("photos", ages);
  machine.fill("photos", 8, mebibyte, 40 * day);
  const Declared declared({"photos"});
  Daemon daemon;
  CachesService service(machine, daemon, {"photos"}, {"KELVANE_CACHES_IDLE=1"});
  Client client(daemon);
  EXPECT_EQ(freedIn(client.purge(purgeOf(machine, 2 * mebibyte, 2))), 2 * mebibyte);
  ASSERT_TRUE(service.ended(0)) << service.process().output();
  EXPECT_EQ(freedIn(client.purge(purgeOf(machine, 2 * mebibyte, 2))), 2 * mebibyte);
  EXPECT_TRUE(service.ended(0, 2)) << service.process().output();
}

TEST(CacheService, LosesNoCallThatComesWhileItEnds) {
  const CachesMachine machine(64);
  machine.define("photos", ages);
  machine.fill("photos", 40, 64 << 10, 40 * day);
  const Declared declared({"photos"});
  Daemon daemon;
  CachesService service(machine, daemon, {"photos"}, {"KELVANE_CACHES_IDLE=0"});
  Client client(daemon);
  constexpr int calls_between_ends = 5;  // these may meet a process that is ending
  std::size_t ends = 0;
  for (int i = 0; i < 40; ++i) {
    EXPECT_EQ(freedIn(client.purge(purgeOf(machine, 64 << 10, 2))), 64U << 10)
        << i << service.process().output();
    if (i % calls_between_ends == 0) {
      ASSERT_TRUE(service.ended(0, ++ends)) << service.process().output();
    }
  }
  EXPECT_EQ(machine.countFiles("photos"), 0U);
}

TEST(CacheService, EndsAtOnceWhenIdleAfterADefinitionHasChanged) {
  const CachesMachine machine(64);
  machine.define("photos", ages);
  machine.fill("photos", 8, mebibyte, 10 * day);
  const Declared declared({"photos"});
  Daemon daemon;
  CachesService service(machine, daemon, {"photos"});
  Client client(daemon);
  EXPECT_EQ(freedIn(client.purge(purgeOf(machine, mebibyte, 2))), 0U);
  machine.define("photos", "2 = \"9d\"\n3 = \"7d\"\n4 = \"1h\"");
  ASSERT_TRUE(service.ended(0)) << service.process().output();
  EXPECT_EQ(freedIn(client.purge(purgeOf(machine, mebibyte, 2))), mebibyte);
}

TEST(CacheService, AnswersZeroForWhatIsMaskedUnknownOrWrongAndSaysWhyOnce) {
  const CachesMachine machine(64);
  machine.define("faulty", "2 = \"soon\"");
  fs::create_symlink("/dev/null", machine.definitions() + "/masked.toml");
  const Declared declared({"faulty", "masked", "unknown"});
  Daemon daemon;
  CachesService service(machine, daemon, {"faulty", "masked", "unknown"});
  Client client(daemon);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(freedIn(client.purge(purgeOf(machine, mebibyte, 3))), 0U);
  EXPECT_EQ(service.process().count("masked gives nothing: masked"), 1U) << service.process().output();
  EXPECT_EQ(service.process().count("unknown gives nothing: no such definition"), 1U);
  EXPECT_EQ(service.process().count("faulty gives nothing: " + machine.definitions() + "/faulty.toml:"), 1U);
}

TEST(CacheService, ServesAllDefinitionsOfTheAdministratorOnOneSocket) {
  const CachesMachine machine(64);
  for (const char* const name : {"one", "two"}) {
    machine.define(name, ages);
    machine.fill(name, 4, mebibyte, 40 * day);
  }
  const Declared declared({"local"});
  Daemon daemon;
  CachesService service(machine, daemon, {"local"});
  Client client(daemon);
  EXPECT_EQ(freedIn(client.purge(purgeOf(machine, 6 * mebibyte, 2))), 6 * mebibyte);
}

TEST(CacheService, ServesTwentyFourSocketsInOneProcess) {
  const CachesMachine machine(64);
  std::vector<std::string> names;
  for (int i = 0; i < 24; ++i) {
    names.push_back("cache-" + std::to_string(i));
    machine.define(names.back(), ages);
    machine.fill(names.back(), 2, mebibyte / 2, 40 * day);
  }
  const Declared declared(names);
  Daemon daemon;
  CachesService service(machine, daemon, names);
  Client client(daemon);
  EXPECT_EQ(purgeableOn("/home", client.purgeableSpace(
                                     {{KELVANE_VOLUME, machine.volume()}, {KELVANE_URGENCY_LIMIT, 2}})),
            24 * mebibyte);
  EXPECT_EQ(freedIn(client.purge(purgeOf(machine, 24 * mebibyte, 2))), 24 * mebibyte);
  EXPECT_EQ(service.process().count("started "), 1U);
}

TEST(CacheService, AnswersWithWhatWentWhenItGetsSigtermDuringAPurge) {
  constexpr unsigned files = 40'000;
  const CachesMachine machine(320);
  machine.define("photos", ages);
  machine.fill("photos", files, 4096, 40 * day);
  const Declared declared({"photos"});
  Daemon daemon;
  CachesService service(machine, daemon, {"photos"});
  const std::uint64_t before = machine.freeSpace();
  Client client(daemon);
  client.startPurge(purgeOf(machine, 1 << 30, 2));
  while (machine.freeSpace() == before) std::this_thread::yield();
  ::kill(service.id(), SIGTERM);
  const std::uint64_t freed = freedIn(client.finishPurge());
  EXPECT_TRUE(service.ended(0)) << service.process().output();
  EXPECT_EQ(freed, machine.freeSpace() - before);
  EXPECT_GT(machine.countFiles("photos"), 0U) << "it did not end amid the purge";
}

TEST(CacheService, EndsOnSigtermWhenNobodyCalls) {
  const CachesMachine machine(16);
  machine.define("photos", ages);
  const Declared declared({"photos"});
  Daemon daemon;
  CachesService service(machine, daemon, {"photos"});
  Client client(daemon);
  EXPECT_EQ(freedIn(client.purge(purgeOf(machine, mebibyte, 2))), 0U);
  ::kill(service.id(), SIGTERM);
  EXPECT_TRUE(service.ended(0)) << service.process().output();
}

/// The journal of this machine.
class StandInJournal {
 public:
  StandInJournal() {
    EXPECT_EQ(::mount("kelvane-test-run", "/run", "tmpfs", 0, nullptr), 0);
    fs::create_directories("/run/systemd/journal");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "/run/systemd/journal/socket";
    std::copy(path.begin(), path.end(), std::begin(address.sun_path));
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  ~StandInJournal() { ::umount2("/run", MNT_DETACH); }
  StandInJournal(const StandInJournal&) = delete;
  StandInJournal& operator=(const StandInJournal&) = delete;

  /// The next entry; empty without one.
  [[nodiscard]] std::string received() const {
    std::string text(1 << 17, '\0');
    const ssize_t length = ::recv(socket_.get(), text.data(), text.size(), MSG_DONTWAIT);
    text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return text;
  }

 private:
  const FileDescriptor socket_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

TEST(CacheService, LeavesAnEntryInTheJournalForEachRootOfAPurge) {
  const StandInJournal journal;
  const CachesMachine machine(64);
  machine.define("photos", ages);
  machine.fill("photos", 4, mebibyte, 40 * day);
  const Declared declared({"photos"});
  Daemon daemon;
  CachesService service(machine, daemon, {"photos"}, {"SERVICE_JOURNAL=yes"});
  Client client(daemon);
  EXPECT_EQ(freedIn(client.purge(purgeOf(machine, 2 * mebibyte, 2))), 2 * mebibyte);
  const std::string entry = journal.received();
  EXPECT_THAT(entry, AllOf(HasSubstr("KELVANE_HOLDER=photos\n"),
                           HasSubstr("KELVANE_ROOT=" + machine.cacheOf("photos") + "\n"),
                           HasSubstr("KELVANE_VOLUME=/home\n"), HasSubstr("KELVANE_USER=alice\n"),
                           HasSubstr("KELVANE_BYTES=2097152\n"), HasSubstr("KELVANE_FILES=2\n"),
                           HasSubstr("KELVANE_URGENCY=2\n"), HasSubstr("KELVANE_END=amount-freed\n")));
  EXPECT_THAT(entry, HasSubstr("MESSAGE=photos: freed 2.0 MiB"));
  EXPECT_EQ(journal.received(), "") << "no entry for the pass that freed nothing";
  EXPECT_EQ(service.process().count("freed 2.0 MiB"), 0U) << "not on standard error as well";
}

TEST(CacheService, SaysWhatItWasPassedOrCannotRead) {
  const Finished alone = run({built("kelvane-caches")});
  EXPECT_EQ(alone.status, 2);
  EXPECT_THAT(alone.output, HasSubstr("no socket was passed"));
  const Finished impatient = run({built("kelvane-caches")}, {"KELVANE_CACHES_IDLE=soon"});
  EXPECT_EQ(impatient.status, 2);
  EXPECT_THAT(impatient.output,
              HasSubstr("invalid KELVANE_CACHES_IDLE \"soon\": expected a number of seconds"));
}

}  // namespace
}  // namespace kelvane::tests
