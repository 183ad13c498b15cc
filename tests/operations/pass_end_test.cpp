// The end of a pass: which replies belong to it, and which arrive too late.

#include <gtest/gtest.h>
#include <chrono>
#include <functional>
#include <random>

#include "platform/dispatch/suspension.h"
#include "tests/operations/answer.h"
#include "tests/operations/purge_fixture.h"

namespace kelvane {
namespace {

using tests::FakeService;

class PassEnd : public tests::PurgeFixture {
 protected:
  /// One pass that the test itself opens, fills and closes.
  struct Pass {
    std::shared_ptr<KelvanePurgeOperation> operation;
    std::shared_ptr<WorkingDictionary> working;
    std::shared_ptr<PurgePass> pass;
    std::vector<std::optional<Dictionary>>* completions;

    void queue(const std::string& ID) const {
      operation->queueServiceRequest(
          operation->services().at(ID), working, pass->urgency(), pass, pass->group(),
          [into = completions](const std::optional<Dictionary>& reply) { into->push_back(reply); });
    }
    void close() const {
      dispatch_sync(operation->message_queue(), [this] { pass->close(); });
    }
    void awaitEmptyGroup() const { EXPECT_EQ(dispatch_group_wait(pass->group(), DISPATCH_TIME_FOREVER), 0); }
    [[nodiscard]] Dictionary info() const {
      return dispatch_sync(operation->collection_queue(), [this] { return pass->operationInfo(); });
    }
  };

  Pass passFor(std::uint64_t bytes, std::int32_t urgency = 1) {
    const auto it = operation({{KELVANE_AMOUNT, bytes}});
    return {it, std::make_shared<WorkingDictionary>(it->info()), std::make_shared<PurgePass>(urgency),
            &completions_};
  }
  static FakeService::ResultReply keptReply(FakeService& service, const std::function<void()>& ask) {
    tests::Answer<FakeService::ResultReply> asked;
    service.onPurge([asked](const FakeService::Purge&, const FakeService::ResultReply& reply) mutable {
      asked.come(reply);
    });
    ask();
    return asked.await();
  }
};

TEST_F(PassEnd, AReplyThatComesWhenItsPassIsOverIsNotCountedNotReportedNotPassedOnAndEndsNothing) {
  FakeService& late = service("late");
  const Pass pass = passFor(100);
  const auto reply = keptReply(late, [&] { pass.queue("late"); });
  pass.close();
  const std::int64_t counted_before = counter("late.purged");
  reply(Dictionary{{KELVANE_AMOUNT, 100}});
  late.dropConnections();
  pass.awaitEmptyGroup();
  EXPECT_EQ(amountPurged(*pass.working), 0U);
  EXPECT_EQ(pass.operation->purge_amount_reported(), 0U);
  EXPECT_EQ(pass.operation->viable_purging_services(), 1U);
  EXPECT_EQ(counter("late.purged"), counted_before);
  EXPECT_EQ(pass.info(), Dictionary());
  EXPECT_TRUE(completions_.empty());
  EXPECT_EQ(late.purgesAsked().size(), 1U);
  EXPECT_TRUE(pass.operation->isInFlight("late"));  // as if the next pass had asked it already
}

TEST_F(PassEnd, ALateReplyOfLessThanItsShareLeavesTheServiceViable) {
  FakeService& late = service("late");
  const Pass pass = passFor(100);
  const auto reply = keptReply(late, [&] { pass.queue("late"); });
  pass.close();
  reply(Dictionary{{KELVANE_AMOUNT, 1}});
  late.dropConnections();
  pass.awaitEmptyGroup();
  EXPECT_EQ(pass.operation->viable_purging_services(), 1U);
}

TEST_F(PassEnd, ARequestThatIsStillQueuedWhenItsPassIsOverIsNotSent) {
  FakeService& queued = service("queued");
  queued.onPurge(
      [&](const FakeService::Purge&, const FakeService::ResultReply&) { queued.dropConnections(); });
  const Pass pass = passFor(100);
  {
    const Suspension suspension(pass.operation->message_queue());
    dispatch_async(pass.operation->message_queue(), [&] { pass.pass->close(); });
    pass.queue("queued");
  }
  pass.awaitEmptyGroup();
  EXPECT_EQ(queued.connectionsOpened(), 0);
  EXPECT_FALSE(pass.operation->isInFlight("queued"));
}

TEST_F(PassEnd, ARequestThatIsStillQueuedWhenTheOperationIsCancelledIsNotSent) {
  FakeService& queued = service("queued");
  queued.purges([](std::uint64_t) { return 0; });
  const Pass pass = passFor(100);
  {
    const Suspension suspension(pass.operation->message_queue());
    dispatch_async(pass.operation->message_queue(), [&] { pass.operation->setCancel(true); });
    pass.queue("queued");
  }
  pass.awaitEmptyGroup();
  EXPECT_EQ(queued.connectionsOpened(), 0);
}

TEST_F(PassEnd, AReplyIsAccountedForBehindTheRequestsThatAreQueuedAlready) {
  FakeService& quick = service("quick");
  FakeService& next = service("next");
  quick.onPurge([&](const FakeService::Purge&, const FakeService::ResultReply& reply) {
    reply(Dictionary{{KELVANE_AMOUNT, 100}});
    quick.dropConnections();
  });
  next.purges([](std::uint64_t) { return 0; });
  const Pass pass = passFor(100);
  const auto held = dispatch_semaphore_create(0);
  {
    const Suspension suspension(pass.operation->message_queue());
    pass.queue("quick");
    dispatch_async(pass.operation->message_queue(),
                   [held] { static_cast<void>(dispatch_semaphore_wait(held, DISPATCH_TIME_FOREVER)); });
    pass.queue("next");
  }
  log_.await("connection to quick invalidated");  // its reply has come
  EXPECT_EQ(amountPurged(*pass.working), 0U);
  dispatch_semaphore_signal(held);
  pass.awaitEmptyGroup();
  ASSERT_EQ(next.purgesAsked().size(), 1U);
  EXPECT_EQ(next.purgesAsked()[0].asked(), 50U);
  EXPECT_EQ(amountPurged(*pass.working), 100U);
}

// --- replies around the ends of many passes ---

/// Answers each request on one of a few threads, after a random delay of at most `window`.
class RandomReplies {
 public:
  static constexpr std::chrono::microseconds window{300};

  RandomReplies() {
    for (unsigned seed = 0; seed < 3; ++seed) threads_.emplace_back([this, seed] { work(seed); });
  }
  ~RandomReplies() {
    {
      const std::scoped_lock lock(mutex_);
      is_ending_ = true;
      changed_.notify_all();
    }
    for (std::thread& thread : threads_) thread.join();
  }
  RandomReplies(const RandomReplies&) = delete;
  RandomReplies& operator=(const RandomReplies&) = delete;

  void add(Block reply) {
    const std::scoped_lock lock(mutex_);
    replies_.push_back(std::move(reply));
    changed_.notify_one();
  }
  static void delay(std::mt19937& random) {
    const auto until =
        std::chrono::steady_clock::now() +
        std::chrono::microseconds(std::uniform_int_distribution<long>(0, window.count())(random));
    while (std::chrono::steady_clock::now() < until) std::this_thread::yield();
  }

 private:
  void work(unsigned seed) {
    std::mt19937 random(seed);
    for (;;) {
      Block reply;
      {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return is_ending_ || !replies_.empty(); });
        if (is_ending_) return;
        reply = std::move(replies_.back());
        replies_.pop_back();
      }
      delay(random);
      reply();
    }
  }

  std::mutex mutex_;  // guards all but the threads
  std::condition_variable changed_;
  std::vector<Block> replies_;
  bool is_ending_ = false;
  std::vector<std::thread> threads_;
};

/// Purges of two passes, both of which time out while replies come. The amounts that services free are odd in
/// the first pass and even in the second.
class ManyPassEnds : public PassEnd {
 protected:
  static constexpr std::uint64_t needed = 1'000'000'000'000;

  void SetUp() override {
    for (const char* const ID : {"a", "b", "c", "d"}) {
      const bool may_give_all = *ID < 'c';
      const auto before = std::make_shared<std::atomic<std::int32_t>>(0);
      service(ID).onPurge([=, this](const FakeService::Purge& purge, const FakeService::ResultReply& reply) {
        const std::uint64_t parity = purge.urgency == 1 ? 1 : 0;
        // The full amount of the first share only; otherwise the need would be met.
        const bool gives_all = before->exchange(purge.urgency) != purge.urgency && may_give_all;
        const std::uint64_t bytes = gives_all ? (purge.asked() + 1) / 2 * 2 + parity : 2 + parity;
        replies_.add([reply, bytes] { reply(Dictionary{{KELVANE_AMOUNT, bytes}}); });
      });
    }
    silent_ = &service("silent");
  }

  Dictionary runRound() {
    log_.clear();
    completions_.clear();
    is_over_ = false;
    const auto it = operation({{KELVANE_AMOUNT, needed}, {KELVANE_URGENCY, 2}});
    std::thread runner([&] {
      it->startOperation([this](const std::optional<Dictionary>& completed) {
        const std::scoped_lock lock(mutex_);
        EXPECT_FALSE(is_over_) << "a completion after the result";
        is_over_ = completed->contains(KELVANE_FREESPACE_END);
        completions_.push_back(completed);
      });
    });
    for (const std::uint64_t seconds : {2, 4}) {
      silent_->awaitPurges(++passes_);
      RandomReplies::delay(random_);
      clock_.advanceToWaiterFor(seconds * 1'000'000'000);
    }
    runner.join();
    const std::scoped_lock lock(mutex_);
    return *completions_.back();
  }

  [[nodiscard]] std::vector<std::string> requestsAfter(const std::string& line) const {
    std::vector<std::string> requests;
    bool is_after = false;
    for (const auto& each : log_.lines()) {
      is_after |= each.text == line;
      if (is_after && each.text.find(" requesting ") != std::string::npos) requests.push_back(each.text);
    }
    return requests;
  }
  void expectEveryoneToBeAskedAtUrgency2Only() const {
    const auto requests = requestsAfter("startOperation: Urgency: 2");
    const auto number = [&](const std::string& text) {
      return std::count_if(requests.begin(), requests.end(), [&](const std::string& request) {
        return request.find(text) != std::string::npos;
      });
    };
    EXPECT_EQ(number(" at urgency 1"), 0);
    for (const auto& each : services_) EXPECT_GE(number(" bytes from " + each->ID() + " at urgency 2"), 1);
  }
  /// The sum of the amounts that the completions got in the pass.
  std::uint64_t passedOn(int urgency) {
    std::uint64_t sum = 0;
    const std::scoped_lock lock(mutex_);
    for (std::size_t i = 0; i + 1 < completions_.size(); ++i) {
      const std::uint64_t bytes = (*completions_[i])[KELVANE_AMOUNT].unsignedLongLongValue();
      if (bytes % 2 == static_cast<std::uint64_t>(urgency % 2)) sum += bytes;
    }
    return sum;
  }
  static void expectReportsOfItsOwn(const Dictionary& pass, int urgency) {
    if (!pass.contains(KELVANE_REPORTING_SERVICES)) return;
    for (const auto& [ID, bytes] : *pass[KELVANE_REPORTING_SERVICES].dictionary())
      EXPECT_EQ(bytes.unsignedLongLongValue() % 2, static_cast<std::uint64_t>(urgency % 2)) << ID;
  }
  static std::string statisticsOfPass(const Dictionary& result, int urgency) {
    return *passOf(result, urgency)["KELVANE_OPERATION_STATS_URGENCY_" + std::to_string(urgency)].string();
  }

  RandomReplies replies_;
  std::mt19937 random_{7};
  FakeService* silent_ = nullptr;
  std::size_t passes_ = 0;
  bool is_over_ = false;  // guarded by mutex_
};

TEST_F(ManyPassEnds, EveryReplyIsCountedReportedAndPassedOnInItsOwnPassOrNotAtAll) {
  for (int round = 0; round < 500 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    const Dictionary result = runRound();
    expectEveryoneToBeAskedAtUrgency2Only();
    expectReportsOfItsOwn(passOf(result, 1), 1);
    expectReportsOfItsOwn(passOf(result, 2), 2);
    const std::uint64_t first = passedOn(1);
    const std::uint64_t both = first + passedOn(2);
    EXPECT_EQ(statisticsOfPass(result, 1).find("amount reported: " + std::to_string(first) + ", "), 0U);
    EXPECT_EQ(statisticsOfPass(result, 2).find("amount reported: " + std::to_string(both) + ", "), 0U);
    EXPECT_EQ(result[KELVANE_AMOUNT], Value(both));
    EXPECT_EQ(result[KELVANE_AMOUNT_REPORTED], Value(both));
  }
}

}  // namespace
}  // namespace kelvane
