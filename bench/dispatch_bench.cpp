// What moving work costs, beside what the same movement costs with a bare condition variable.
//
// Each does its own bare counterpart in the same run, in turns of a few thousand movements, so that both see
// the same machine.

#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "bench/support/placement.h"
#include "bench/support/program.h"
#include "bench/support/rounds.h"
#include "platform/dispatch/queue.h"

namespace kelvane::bench {
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

/// Nanoseconds of one movement on the queue and of a bare one.
struct Moved {
  double queue;
  double bare;
};

Figure figureOf(const char* name, int rounds, const std::function<Moved()>& round) {
  const auto found = quartilesOfRounds<3>(rounds, [&]() -> std::array<double, 3> {
    const Moved moved = round();
    return {moved.queue, moved.bare, moved.queue / moved.bare};
  });
  return {name, "ns", rounds, found[0], Peer{"bare condition variable", found[1], found[2]}};
}

/// Each argument makes `turn` movements.
template <class OnQueue, class Bare>
Moved inTurns(OnQueue on_queue, Bare bare) {
  const double bare_took = microsecondsOf(bare) * 1e3 / turn;
  return {microsecondsOf(on_queue) * 1e3 / turn, bare_took};
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
    place(0, Side::far);
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
    place(0, Side::far);
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
Figure oneHopIntoAQueue(int rounds) {
  const dispatch_queue_t queue = dispatch_queue_create("bench.hop");
  BareHandOver bare;
  Baton seen;
  std::uint64_t count = 0;
  std::chrono::steady_clock::time_point arrived;
  const auto hop = [&] {
    const auto start = std::chrono::steady_clock::now();
    dispatch_async(queue, [&] {
      arrived = std::chrono::steady_clock::now();
      seen.pass();
    });
    seen.await(++count);
    return std::chrono::duration<double, std::nano>(arrived - start).count();
  };
  Figure figure = figureOf("one asynchronous queue hop", rounds, [&] {
    Moved sum{};
    for (int i = 0; i < turn; ++i) {
      sum.bare += bare.handOver();
      sum.queue += hop();
    }
    return Moved{sum.queue / turn, sum.bare / turn};
  });
  figure.goal = ratioAtMost(1.2);
  return figure;
}

/// From a thread outside the pool into an idle queue, and back to the waiting thread.
Figure roundTripThroughAQueue(int rounds) {
  const dispatch_queue_t queue = dispatch_queue_create("bench.round trip");
  BarePair bare;
  Baton back;
  std::uint64_t trips = 0;
  const auto on_queue = [&] {
    for (int i = 0; i < turn; ++i) {
      dispatch_async(queue, [&] { back.pass(); });
      back.await(++trips);
    }
  };
  return figureOf("round trip through a queue", rounds, [&] {
    return inTurns(on_queue, [&] {
      for (int i = 0; i < turn; ++i) bare.roundTrip();
    });
  });
}

/// Two serial queues that hand work to each other, beside two threads that do: there and back.
Figure pingPongBetweenQueues(int rounds) {
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
  const auto on_queue = [&] {
    Match match{ping, pong, turn, {}};
    dispatch_async(ping, [&match] { match.serve(); });
    match.over.await(1);
  };
  return figureOf("ping-pong between two queues", rounds, [&] {
    return inTurns(on_queue, [&] {
      for (int i = 0; i < turn; ++i) bare.roundTrip();
    });
  });
}

/// A synchronous call on an idle queue, beside a hand-over to a thread that does it and answers.
Figure synchronousCallOnAnIdleQueue(int rounds) {
  const dispatch_queue_t queue = dispatch_queue_create("bench.sync");
  BarePair bare;
  volatile int calls = 0;
  const auto on_queue = [&] {
    for (int i = 0; i < turn; ++i) dispatch_sync(queue, [&] { calls = calls + 1; });
  };
  return figureOf("synchronous call on an idle queue", rounds, [&] {
    return inTurns(on_queue, [&] {
      for (int i = 0; i < turn; ++i) bare.roundTrip();
    });
  });
}

/// The pool's threads run where the bare partners do, and this thread on another processor.
void placeThePool() {
  place(0, Side::far);
  Baton started;
  dispatch_async(dispatch_get_global_queue(0, 0), [&] { started.pass(); });
  started.await(1);
  place(0, Side::near);
}

Report measure(int rounds) {
  placeThePool();
  return {{oneHopIntoAQueue(rounds), roundTripThroughAQueue(rounds), pingPongBetweenQueues(rounds),
           synchronousCallOnAnIdleQueue(rounds)}};
}

}  // namespace
}  // namespace kelvane::bench

int main(int argc, char** argv) {
  int rounds = 31;
  return kelvane::bench::runProgram(
      argc, argv,
      {"dispatch_bench", "Measures queues against a bare condition variable.",
       [&](CLI::App& app) {
         app.add_option("--rounds", rounds, "rounds, each of 2,000 movements")->check(CLI::Range(3, 1000));
       },
       [&] { return kelvane::bench::measure(rounds); }});
}
