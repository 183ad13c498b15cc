#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <array>
#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "platform/dispatch/executor.h"
#include "platform/dispatch/source.h"
#include "tests/dispatch/occasion.h"

namespace kelvane {
namespace {

using test::Occasion;

/// Two connected ends; the test writes into `far` what the source sees at `near`.
class Pair {
 public:
  Pair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends_.data()), 0); }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;
  ~Pair() {
    ::close(ends_[0]);
    closeFar();
  }
  [[nodiscard]] int near() const { return ends_[0]; }
  [[nodiscard]] int far() const { return ends_[1]; }
  void closeFar() {
    if (ends_[1] >= 0) ::close(ends_[1]);
    ends_[1] = -1;
  }
  void writeOne() const { EXPECT_EQ(::write(far(), "x", 1), 1); }
  /// Reads all there is; returns how much that was.
  [[nodiscard]] int drain() const {
    std::array<char, 256> bytes{};
    int total = 0;
    for (;;) {
      const ssize_t count = ::read(near(), bytes.data(), bytes.size());
      if (count <= 0) return total;
      total += static_cast<int>(count);
    }
  }

 private:
  std::array<int, 2> ends_{-1, -1};
};

/// Lets the pool look at its descriptors, and handle what it finds, several times.
void letThePoolPoll() {
  const Pair pair;
  Occasion seen;
  const EventSource source(pair.near(), EPOLLIN, [&](std::uint32_t) {
    if (pair.drain() > 0) seen.happen();
  });
  for (int i = 1; i <= 20; ++i) {
    pair.writeOne();
    seen.await(i);
  }
}

/// For a handler to hold: `gone` happens when the handler is destroyed, and so runs no more.
std::shared_ptr<void> tellWhenDestroyed(Occasion& gone) {
  return {nullptr, [&gone](void*) { gone.happen(); }};
}

/// Every test leaves no source behind.
class EventSourceTest : public ::testing::Test {
 protected:
  ~EventSourceTest() override { EXPECT_EQ(dispatch_statistics().event_sources, 0U); }

  Pair pair_;
};

TEST_F(EventSourceTest, CallsItsHandlerOnAThreadOfThePoolWithTheEventsThatCame) {
  Occasion seen;
  std::uint32_t events = 0;
  std::thread::id thread;
  const EventSource source(pair_.near(), EPOLLIN, [&](std::uint32_t ready) {
    events = ready;
    thread = std::this_thread::get_id();
    seen.happen();
  });
  pair_.writeOne();
  seen.await();
  EXPECT_EQ(events, static_cast<std::uint32_t>(EPOLLIN));
  EXPECT_NE(thread, std::this_thread::get_id());
}

TEST_F(EventSourceTest, ReportsWhatWasReadyBeforeItWasMade) {
  pair_.writeOne();
  Occasion seen;
  const EventSource source(pair_.near(), EPOLLIN, [&](std::uint32_t) { seen.happen(); });
  seen.await();
}

TEST_F(EventSourceTest, ReportsReadinessOnChangeOnly) {
  Occasion seen;
  const EventSource source(pair_.near(), EPOLLIN, [&](std::uint32_t) { seen.happen(); });
  pair_.writeOne();
  seen.await(1);
  letThePoolPoll();
  EXPECT_EQ(seen.times(), 1);  // though nobody has read
  pair_.writeOne();
  seen.await(2);
}

TEST_F(EventSourceTest, ReportsThatTheOtherEndWasClosed) {
  Occasion closed;
  const EventSource source(pair_.near(), EPOLLIN, [&](std::uint32_t events) {
    if ((events & EPOLLHUP) != 0) closed.happen();
  });
  pair_.closeFar();
  closed.await();
}

TEST_F(EventSourceTest, RunsOnceMoreWithoutEventsWhenAskedToRunAgain) {
  Occasion seen;
  std::atomic<std::uint32_t> events{~0U};
  EventSource source(pair_.near(), EPOLLIN, [&](std::uint32_t ready) {
    events = ready;
    seen.happen();
  });
  source.again();
  seen.await();
  EXPECT_EQ(events.load(), 0U);
}

TEST_F(EventSourceTest, RunsOnceMoreWhenItsOwnHandlerAsksForIt) {
  Occasion seen;
  std::unique_ptr<EventSource> source;
  source = std::make_unique<EventSource>(pair_.near(), EPOLLIN, [&](std::uint32_t events) {
    static_cast<void>(pair_.drain());  // what was written was written after `source` was set
    EXPECT_EQ(events, seen.times() == 0 ? static_cast<std::uint32_t>(EPOLLIN) : 0U);
    if (seen.times() < 2) source->again();
    seen.happen();
  });
  pair_.writeOne();
  seen.await(3);
  letThePoolPoll();
  EXPECT_EQ(seen.times(), 3);
}

TEST_F(EventSourceTest, NeverRunsItsHandlerTwiceAtATimeAndMissesNothingUnderHammering) {
  constexpr int thread_count = 4;
  constexpr int writes = 500;
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  int received = 0;  // plain on purpose: runs of one handler follow each other
  Occasion complete;
  Occasion gone;
  EventSource source(pair_.near(), EPOLLIN, [&, held = tellWhenDestroyed(gone)](std::uint32_t) {
    if (inside.fetch_add(1) != 0) ++overlaps;
    const int before = received;
    received += pair_.drain();
    if (before < thread_count * writes && received == thread_count * writes) complete.happen();
    inside.fetch_sub(1);
  });
  std::vector<std::thread> threads;
  threads.reserve(thread_count);
  for (int t = 0; t < thread_count; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < writes; ++i) {
        while (::write(pair_.far(), "x", 1) != 1) std::this_thread::yield();
        if ((i + t) % 3 == 0) source.again();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  complete.await();
  source = EventSource();
  gone.await();
  EXPECT_EQ(overlaps.load(), 0);
}

TEST_F(EventSourceTest, StartsNoRunAfterItWasCancelled) {
  Occasion seen;
  EventSource source(pair_.near(), EPOLLIN, [&](std::uint32_t) { seen.happen(); });
  source.cancel();
  EXPECT_EQ(dispatch_statistics().event_sources, 0U);
  pair_.writeOne();
  source.again();
  source.setEvents(EPOLLIN | EPOLLOUT);
  letThePoolPoll();
  EXPECT_EQ(seen.times(), 0);
  source.cancel();
}

TEST_F(EventSourceTest, StartsNoRunAfterItWasDestroyed) {
  Occasion seen;
  {
    const EventSource source(pair_.near(), EPOLLIN, [&](std::uint32_t) { seen.happen(); });
  }
  pair_.writeOne();
  letThePoolPoll();
  EXPECT_EQ(seen.times(), 0);
}

TEST_F(EventSourceTest, LetsTheRunUnderWayGoOnToItsEndWhenItIsCancelled) {
  Occasion started;
  Occasion may_end;
  Occasion ended;
  EventSource source(pair_.near(), EPOLLIN, [&](std::uint32_t) {
    started.happen();
    may_end.await();
    ended.happen();
  });
  pair_.writeOne();
  started.await();
  source.again();
  source.cancel();
  may_end.happen();
  ended.await();
  letThePoolPoll();
  EXPECT_EQ(started.times(), 1);
}

TEST_F(EventSourceTest, IsCancelledWhenAnotherTakesItsPlace) {
  Occasion first;
  Occasion other;
  EventSource source(pair_.near(), EPOLLIN, [&](std::uint32_t) { first.happen(); });
  const Pair second;
  source = EventSource(second.near(), EPOLLIN, [&](std::uint32_t) { other.happen(); });
  pair_.writeOne();
  second.writeOne();
  other.await();
  letThePoolPoll();
  EXPECT_EQ(first.times(), 0);
}

TEST_F(EventSourceTest, WatchesForOtherEventsWhenTheseAreSet) {
  Occasion writable;
  EventSource source(pair_.near(), EPOLLIN, [&](std::uint32_t events) {
    if ((events & EPOLLOUT) != 0) writable.happen();
  });
  letThePoolPoll();
  EXPECT_EQ(writable.times(), 0);
  source.setEvents(EPOLLIN | EPOLLOUT);
  writable.await();
}

TEST_F(EventSourceTest, ReportsWhatIsReadyOnceMoreWhenItsEventsAreSet) {
  Occasion seen;
  EventSource source(pair_.near(), EPOLLIN, [&](std::uint32_t) { seen.happen(); });
  pair_.writeOne();
  seen.await(1);
  source.setEvents(EPOLLIN);
  seen.await(2);
}

TEST_F(EventSourceTest, ReportsADescriptorThatCannotBeWatchedOnceAsAnError) {
  std::FILE* const file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  Occasion seen;
  std::atomic<std::uint32_t> events{0};
  const EventSource source(::fileno(file), EPOLLIN, [&](std::uint32_t ready) {
    events = ready;
    seen.happen();
  });
  seen.await();
  letThePoolPoll();
  EXPECT_EQ(seen.times(), 1);
  EXPECT_EQ(events.load(), static_cast<std::uint32_t>(EPOLLERR));
  EXPECT_EQ(std::fclose(file), 0);
}

TEST_F(EventSourceTest, MayBeDroppedByItsHandlerTogetherWithWhatThatHoldsWhileThePoolReportsOthers) {
  constexpr int source_count = 48;
  const dispatch_queue_t queue = dispatch_queue_create("held");
  std::vector<std::unique_ptr<Pair>> pairs;
  pairs.reserve(source_count);
  for (int i = 0; i < source_count; ++i) pairs.push_back(std::make_unique<Pair>());
  // A thread of the pool that is at work takes over what the polling thread is still reporting.
  Occasion gone;
  std::atomic<bool> enough{false};
  Occasion ended;
  const std::function<void()> keep_busy = [&] {
    if (enough.load()) return ended.happen();
    dispatch_async(dispatch_get_global_queue(0, 0), [&keep_busy] { keep_busy(); });
  };
  for (int i = 0; i < 2; ++i) dispatch_async(dispatch_get_global_queue(0, 0), [&keep_busy] { keep_busy(); });
  constexpr int rounds = 100;
  for (int round = 0; round < rounds; ++round) {
    Occasion seen;
    std::vector<std::unique_ptr<EventSource>> sources(pairs.size());
    for (std::size_t i = 0; i < pairs.size(); ++i) {
      // The timer goes back to the pool when the handler is destroyed.
      const auto held =
          std::shared_ptr<Timer>(new Timer(DISPATCH_TIME_FOREVER, queue, [] {}), [&](Timer* timer) {
            delete timer;
            gone.happen();
          });
      sources[i] = std::make_unique<EventSource>(pairs[i]->near(), EPOLLIN, [&, i, held](std::uint32_t) {
        static_cast<void>(pairs[i]->drain());
        sources[i].reset();
        seen.happen();
      });
    }
    for (const auto& pair : pairs) pair->writeOne();
    seen.await(source_count);
  }
  enough = true;
  ended.await(2);
  gone.await(rounds * source_count);
  EXPECT_EQ(dispatch_statistics().timers, 0U);
}

}  // namespace
}  // namespace kelvane
