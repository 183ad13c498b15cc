// The daemon is killed at any moment while clients write state, and the next one has every write that was
// acknowledged. Each client has one write under way at the kill: it is there as a whole, or not at all.
//
// There are 40 kills; for more, or for the same choices again (how far the daemon has come by then is its
// own):
//
//   KELVANE_KILLS=1000 system_test --gtest_filter='Kills*'
//   KELVANE_KILLS_DRAWN_FROM=17 system_test --gtest_filter='Kills*'

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/dispatch/group.h"
#include "tests/support/random_choices.h"
#include "tests/system/daemon.h"

namespace kelvane::tests {
namespace {

using test::RandomChoices;

constexpr std::size_t keys_each = 3;
constexpr std::int64_t patience_nanoseconds = 10'000'000'000;

/// A client that writes under its own keys and remembers the outcome.
class Writer {
 public:
  Writer(std::string name, std::uint64_t number) : name_(std::move(name)), choices_(number) {}

  void writeUntilKilled(const Daemon& daemon, const dispatch_semaphore_t& acknowledged) {
    Client client(daemon);
    for (;;) {
      under_way_ = {name_ + std::to_string(choices_.below(keys_each)), newValue()};
      client.setState(under_way_.second, under_way_.first);
      if (!client.failure().empty()) {
        EXPECT_EQ(client.failure().find("is not kept"), std::string::npos) << client.failure();
        return;
      }
      held_[under_way_.first] = under_way_.second;
      ++acknowledged_;
      dispatch_semaphore_signal(acknowledged);
    }
  }

  void compare(Client& reader) {
    for (std::size_t i = 0; i < keys_each; ++i) {
      const std::string key = name_ + std::to_string(i);
      const Value found = reader.state(key);
      const bool was_under_way = key == under_way_.first && found == under_way_.second;
      EXPECT_TRUE(found == held_[key] || was_under_way) << key;
      stored_only_ += found == held_[key] ? 0 : 1;
      held_[key] = found;
    }
  }

  void report() const {
    std::printf("%s: %zu writes acknowledged, %zu stored when the kill came before that\n", name_.c_str(),
                acknowledged_, stored_only_);
  }

 private:
  /// One that was never written before, or nothing.
  Value newValue() {
    if (choices_.oneIn(8)) return {};
    return std::to_string(++values_made_) + std::string(choices_.oneIn(8) ? 100'000 : 0, 'x');
  }

  const std::string name_;
  RandomChoices choices_;
  std::size_t values_made_ = 0;
  std::map<std::string, Value> held_;  // the last value acknowledged, or found, under each key
  std::pair<std::string, Value> under_way_;
  std::size_t acknowledged_ = 0;
  std::size_t stored_only_ = 0;
};

void compare(const Daemon& daemon, std::vector<Writer>& writers) {
  Client reader(daemon);
  for (Writer& writer : writers) writer.compare(reader);
  EXPECT_EQ(reader.failure(), "");
}

/// The kill comes after some writes, and some way into the next.
void killWhileWriting(Daemon& daemon, std::vector<Writer>& writers, RandomChoices& choices) {
  const dispatch_semaphore_t acknowledged = dispatch_semaphore_create(0);
  std::vector<std::thread> threads;
  threads.reserve(writers.size());
  for (Writer& writer : writers) threads.emplace_back([&] { writer.writeUntilKilled(daemon, acknowledged); });
  for (std::size_t left = choices.below(40); left > 0; --left) {
    const dispatch_time_t deadline = dispatch_time(DISPATCH_TIME_NOW, patience_nanoseconds);
    EXPECT_EQ(dispatch_semaphore_wait(acknowledged, deadline), 0);
  }
  std::atomic<std::size_t> spun = 0;
  const std::size_t turns = choices.below(200'000);
  while (++spun < turns) {
  }
  daemon.process().signal(SIGKILL);
  for (std::thread& thread : threads) thread.join();
  const int status = daemon.process().wait();
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << daemon.process().output();
}

/// Kills one daemon after another on that state directory, and compares what is left.
void killAndCompare(const std::string& state, std::uint64_t kills, RandomChoices& choices,
                    std::vector<Writer>& writers, const std::function<void()>& between) {
  for (std::uint64_t life = 0; !testing::Test::HasFailure(); ++life) {
    Daemon daemon(built("kelvaned"), {"STATE_DIRECTORY=" + state});
    ASSERT_TRUE(daemon.isReady()) << daemon.process().output();
    compare(daemon, writers);
    if (life == kills) break;
    killWhileWriting(daemon, writers, choices);
    between();
  }
  for (const auto& entry : std::filesystem::directory_iterator(state))
    EXPECT_EQ(entry.path().string().find(".damaged-"), std::string::npos) << entry.path();
  for (const Writer& writer : writers) writer.report();
}

class Kills : public testing::Test {
 protected:
  Kills() {
    std::printf("KELVANE_KILLS_DRAWN_FROM=%llu\n", static_cast<unsigned long long>(number_));
    for (const char* name : {"a", "b", "c"}) writers_.emplace_back(name, choices_.below(SIZE_MAX));
  }

  const std::uint64_t kills_ = test::numberFromEnvironment("KELVANE_KILLS", 40);
  const std::uint64_t number_ =
      test::numberFromEnvironment("KELVANE_KILLS_DRAWN_FROM", std::random_device{}());
  RandomChoices choices_{number_};
  std::vector<Writer> writers_;
};

TEST_F(Kills, CostNoWriteThatWasAcknowledged) {
  const Folder state;
  killAndCompare(state.path(), kills_, choices_, writers_, [] {});
}

/// Uses up the last byte of the volume.
void fillUp(const Volume& volume) {
  std::ofstream file(volume.path() + "/filler", std::ios::binary | std::ios::app);
  const std::string block(4096, 'x');
  while (file.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) {
  }
  ASSERT_EQ(volume.freeSpace(), 0u);
}

TEST_F(Kills, OnAFullVolumeCostNoWriteThatWasAcknowledgedAndNoneIsRefused) {
  const Volume volume(64);
  {
    Daemon daemon(built("kelvaned"), {"STATE_DIRECTORY=" + volume.path()});
    Client(daemon).setState("the room is made before this", "first");
    daemon.process().signal(SIGKILL);
    daemon.process().wait();
  }
  fillUp(volume);
  killAndCompare(volume.path(), kills_, choices_, writers_, [&] { EXPECT_EQ(volume.freeSpace(), 0u); });
}

TEST(FullVolume, TakesAStateOfTheLargestSizeAndTheLogNeverGrows) {
  const Volume volume(64);
  Daemon daemon(built("kelvaned"), {"STATE_DIRECTORY=" + volume.path()});
  Client client(daemon);
  client.setState(1, "first");
  fillUp(volume);
  const std::string log = volume.path() + "/com.orvel.kelvane.db-wal";
  const auto log_size = std::filesystem::file_size(log);
  const std::string large((std::size_t{1} << 20) - 1024, 'x');
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 19; ++i) client.setState(std::to_string(round) + large, std::to_string(i));
  }
  EXPECT_EQ(client.failure(), "");
  EXPECT_EQ(std::filesystem::file_size(log), log_size);
  daemon.restart(SIGKILL);
  Client reader(daemon);
  for (int i = 0; i < 19; ++i) EXPECT_TRUE(reader.state(std::to_string(i)) == Value("1" + large)) << i;
}

TEST(FullVolume, WithoutRoomRefusesWhatItCannotKeepAndSaysSo) {
  const Volume volume(4);  // too small for the room
  Daemon daemon(built("kelvaned"), {"STATE_DIRECTORY=" + volume.path()});
  Client(daemon).setState(1, "first");
  fillUp(volume);
  Client client(daemon);
  client.setState(std::string(500'000, 'x'), "second");
  EXPECT_NE(client.failure().find("the value is not kept: "), std::string::npos) << client.failure();
  EXPECT_NE(client.failure().find("database or disk is full"), std::string::npos) << client.failure();
  EXPECT_TRUE(daemon.logged("unable to keep the value for key: second: "));
  EXPECT_EQ(Client(daemon).state("second"), Value());
  daemon.restart(SIGKILL);
  EXPECT_EQ(Client(daemon).state("first"), Value(1));
  EXPECT_EQ(Client(daemon).state("second"), Value());
}

}  // namespace
}  // namespace kelvane::tests
