// The daemon is killed at any moment while clients write state, and the next one has every write that was
// acknowledged. Of each client one write is under way when the kill comes: it is there or not, as a whole.
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

/// A client that writes under keys of its own and remembers what became of it.
class Writer {
 public:
  Writer(std::string name, std::uint64_t number) : name_(std::move(name)), choices_(number) {}

  void writeUntilKilled(const Daemon& daemon, const dispatch_semaphore_t& acknowledged) {
    Client client(daemon);
    for (;;) {
      under_way_ = {name_ + std::to_string(choices_.below(keys_each)), newValue()};
      client.setState(under_way_.second, under_way_.first);
      if (!client.failure().empty()) return;
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

TEST(Kills, CostNoWriteThatWasAcknowledged) {
  const std::uint64_t kills = test::numberFromEnvironment("KELVANE_KILLS", 40);
  const std::uint64_t number =
      test::numberFromEnvironment("KELVANE_KILLS_DRAWN_FROM", std::random_device{}());
  std::printf("KELVANE_KILLS_DRAWN_FROM=%llu\n", static_cast<unsigned long long>(number));
  RandomChoices choices(number);
  std::vector<Writer> writers;
  for (const char* name : {"a", "b", "c"}) writers.emplace_back(name, choices.below(SIZE_MAX));
  const Folder state;
  for (std::uint64_t life = 0; !HasFailure(); ++life) {
    Daemon daemon(built("kelvaned"), {"STATE_DIRECTORY=" + state.path()});
    ASSERT_TRUE(daemon.isReady()) << daemon.process().output();
    compare(daemon, writers);
    if (life == kills) break;
    killWhileWriting(daemon, writers, choices);
  }
  for (const auto& entry : std::filesystem::directory_iterator(state.path()))
    EXPECT_EQ(entry.path().string().find(".damaged-"), std::string::npos) << entry.path();
  for (const Writer& writer : writers) writer.report();
}

}  // namespace
}  // namespace kelvane::tests
