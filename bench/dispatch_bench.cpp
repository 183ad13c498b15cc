// What moving work costs, beside what the same movement costs with a bare condition variable.
//
// Each benchmark of a queue does its own bare counterpart in the same run, in turns of a few thousand, so
// that both see the same machine. The counters: `queue_ns` and `bare_ns` per movement, and their `ratio`.

#include <benchmark/benchmark.h>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "platform/dispatch/queue.h"

namespace kelvane {
namespace {

constexpr int turn = 2000;  // movements measured at a stretch

/// A number that one thread raises and another waits for.
class Baton {
 public:
  void pass() {
    const std::scoped_lock lock(mutex_);
    ++passed_;
    changed_.notify_one();
  }
  void await(std::uint64_t times) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return passed_ >= times; });
  }

 private:
  std::mutex mutex_;  // guards all below
  std::condition_variable changed_;
  std::uint64_t passed_ = 0;
};

template <class F>
double nanosecondsOf(F&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
}

/// Runs both by turns. Each argument makes `turn` movements.
template <class OnQueue, class Bare>
void compare(benchmark::State& state, OnQueue&& on_queue, Bare&& bare) {
  double queue_time = 0;
  double bare_time = 0;
  while (state.KeepRunning()) {
    const double bare_now = nanosecondsOf(bare);
    const double queue_now = nanosecondsOf(on_queue);
    state.SetIterationTime(queue_now / 1e9);
    bare_time += bare_now;
    queue_time += queue_now;
  }
  const double movements = static_cast<double>(state.iterations()) * turn;
  state.counters["queue_ns"] = queue_time / movements;
  state.counters["bare_ns"] = bare_time / movements;
  state.counters["ratio"] = queue_time / bare_time;
}

/// Two threads and two batons: each passes one and waits for the other.
class BarePair {
 public:
  BarePair() : partner_([this] { answer(); }) {}
  BarePair(const BarePair&) = delete;
  BarePair& operator=(const BarePair&) = delete;
  ~BarePair() {
    leaving_ = true;  // seen by the partner through the baton
    there_.pass();
    partner_.join();
  }
  void roundTrip() {
    there_.pass();
    back_.await(++trips_);
  }

 private:
  void answer() {
    for (std::uint64_t i = 1;; ++i) {
      there_.await(i);
      if (leaving_) return;
      back_.pass();
    }
  }

  Baton there_;
  Baton back_;
  std::uint64_t trips_ = 0;  // only on the thread that calls
  bool leaving_ = false;     // written before the last pass of `there_`
  std::thread partner_;
};

/// One way: the thread that waits writes down when it got up; the other waits, off the record, until it has.
class BareHandOver {
 public:
  BareHandOver() : receiver_([this] { receive(); }) {}
  BareHandOver(const BareHandOver&) = delete;
  BareHandOver& operator=(const BareHandOver&) = delete;
  ~BareHandOver() {
    leaving_ = true;
    handed_.pass();
    receiver_.join();
  }
  double handOver() {
    const auto start = std::chrono::steady_clock::now();
    handed_.pass();
    seen_.await(++count_);
    return std::chrono::duration<double, std::nano>(arrived_ - start).count();
  }

 private:
  void receive() {
    for (std::uint64_t i = 1;; ++i) {
      handed_.await(i);
      if (leaving_) return;
      arrived_ = std::chrono::steady_clock::now();
      seen_.pass();
    }
  }

  Baton handed_;
  Baton seen_;
  std::uint64_t count_ = 0;                        // only on the thread that calls
  std::chrono::steady_clock::time_point arrived_;  // written before `seen_` is passed
  bool leaving_ = false;                           // written before the last pass of `handed_`
  std::thread receiver_;
};

/// From a thread outside the pool into an idle queue, until the item runs.
void oneHopIntoAQueue(benchmark::State& state) {
  const dispatch_queue_t queue = dispatch_queue_create("bench.hop");
  BareHandOver bare;
  Baton seen;
  std::uint64_t count = 0;
  std::chrono::steady_clock::time_point arrived;
  double queue_time = 0;
  double bare_time = 0;
  while (state.KeepRunning()) {
    double queue_now = 0;
    for (int i = 0; i < turn; ++i) bare_time += bare.handOver();
    for (int i = 0; i < turn; ++i) {
      const auto start = std::chrono::steady_clock::now();
      dispatch_async(queue, [&] {
        arrived = std::chrono::steady_clock::now();
        seen.pass();
      });
      seen.await(++count);
      queue_now += std::chrono::duration<double, std::nano>(arrived - start).count();
    }
    state.SetIterationTime(queue_now / 1e9);
    queue_time += queue_now;
  }
  const double movements = static_cast<double>(state.iterations()) * turn;
  state.counters["queue_ns"] = queue_time / movements;
  state.counters["bare_ns"] = bare_time / movements;
  state.counters["ratio"] = queue_time / bare_time;
}

/// From a thread outside the pool into an idle queue, and back to the waiting thread.
void roundTripThroughAQueue(benchmark::State& state) {
  const dispatch_queue_t queue = dispatch_queue_create("bench.round trip");
  BarePair bare;
  Baton back;
  std::uint64_t trips = 0;
  compare(
      state,
      [&] {
        for (int i = 0; i < turn; ++i) {
          dispatch_async(queue, [&] { back.pass(); });
          back.await(++trips);
        }
      },
      [&] {
        for (int i = 0; i < turn; ++i) bare.roundTrip();
      });
}

/// Two serial queues that hand work to each other, beside two threads that do: there and back.
void pingPongBetweenQueues(benchmark::State& state) {
  const dispatch_queue_t ping = dispatch_queue_create("bench.ping");
  const dispatch_queue_t pong = dispatch_queue_create("bench.pong");
  struct Match {
    const dispatch_queue_t& ping;
    const dispatch_queue_t& pong;
    int left;
    Baton over;
    void serve() {
      if (left-- == 0) return over.pass();
      dispatch_async(pong, [this] { dispatch_async(ping, [this] { serve(); }); });
    }
  };
  BarePair bare;
  compare(
      state,
      [&] {
        Match match{ping, pong, turn, {}};
        dispatch_async(ping, [&match] { match.serve(); });
        match.over.await(1);
      },
      [&] {
        for (int i = 0; i < turn; ++i) bare.roundTrip();
      });
}

/// A synchronous call on an idle queue, beside a hand-over to a thread that does it and answers.
void synchronousCallOnAnIdleQueue(benchmark::State& state) {
  const dispatch_queue_t queue = dispatch_queue_create("bench.sync");
  BarePair bare;
  int calls = 0;
  compare(
      state,
      [&] {
        for (int i = 0; i < turn; ++i) dispatch_sync(queue, [&] { ++calls; });
        benchmark::DoNotOptimize(calls);
      },
      [&] {
        for (int i = 0; i < turn; ++i) bare.roundTrip();
      });
}

// A number of turns, not a span of time: the two sides of a comparison may differ a hundredfold.
BENCHMARK(oneHopIntoAQueue)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);
BENCHMARK(roundTripThroughAQueue)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);
BENCHMARK(pingPongBetweenQueues)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);
BENCHMARK(synchronousCallOnAnIdleQueue)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kelvane
