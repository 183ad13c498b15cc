#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <memory>
#include <thread>
#include <vector>

#include "platform/wire/account.h"

namespace kelvane::wire {
namespace {

constexpr Limits limits{3, 100, 200, 4, 5, 6};

std::shared_ptr<Account> makeAccount() { return std::make_shared<Account>(1000, limits); }

TEST(AccountTest, ChargeAboveTheLimitIsRefusedWhole) {
  const auto account = makeAccount();
  EXPECT_TRUE(account->charge(Resource::connections, 3));
  EXPECT_FALSE(account->charge(Resource::connections, 1));
  EXPECT_EQ(account->used(Resource::connections), 3U);
  account->release(Resource::connections, 1);
  EXPECT_FALSE(account->charge(Resource::connections, 2));
  EXPECT_TRUE(account->charge(Resource::connections, 1));
  account->release(Resource::connections, 3);
}

TEST(AccountTest, AmountsThatWouldOverflowAreRefused) {
  const auto account = makeAccount();
  EXPECT_TRUE(account->charge(Resource::received_bytes, 1));
  EXPECT_FALSE(account->charge(Resource::received_bytes, UINT64_MAX));
  EXPECT_EQ(account->chargeUpTo(Resource::received_bytes, UINT64_MAX), 99U);
  EXPECT_EQ(account->used(Resource::received_bytes), 100U);
  account->release(Resource::received_bytes, 100);
}

TEST(AccountTest, ChargeUpToGrantsWhatIsLeft) {
  const auto account = makeAccount();
  EXPECT_EQ(account->chargeUpTo(Resource::received_bytes, 60), 60U);
  EXPECT_EQ(account->chargeUpTo(Resource::received_bytes, 60), 40U);
  EXPECT_EQ(account->chargeUpTo(Resource::received_bytes, 60), 0U);
  account->release(Resource::received_bytes, 100);
}

TEST(AccountTest, ResourcesAreCountedApart) {
  const auto account = makeAccount();
  EXPECT_TRUE(account->charge(Resource::calls, 5));
  EXPECT_TRUE(account->charge(Resource::services, 6));
  EXPECT_EQ(account->used(Resource::descriptors), 0U);
  account->release(Resource::calls, 5);
  EXPECT_EQ(account->used(Resource::services), 6U);
  account->release(Resource::services, 6);
}

TEST(AccountTest, CounterIsRightAfterManyThreads) {
  const auto account = makeAccount();
  std::vector<std::thread> threads;
  std::atomic<bool> exceeded = false;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 20000; ++round) {
        const std::uint64_t granted = account->chargeUpTo(Resource::received_bytes, 70);
        if (account->used(Resource::received_bytes) > 100) exceeded = true;
        account->release(Resource::received_bytes, granted);
        if (account->charge(Resource::received_bytes, 30)) account->release(Resource::received_bytes, 30);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(exceeded);
  EXPECT_EQ(account->used(Resource::received_bytes), 0U);
}

TEST(AccountTest, ChargesOfManyThreadsAddUp) {
  const auto account = std::make_shared<Account>(1000, Limits{1, 1U << 30, 1, 1, 1, 1});
  std::vector<std::thread> threads;
  std::atomic<std::uint64_t> charged = 0;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 200'000; ++round) {
        if (account->charge(Resource::received_bytes, 1)) ++charged;
        charged += account->chargeUpTo(Resource::received_bytes, 2);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(account->used(Resource::received_bytes), 2'400'000U);
  EXPECT_EQ(charged, 2'400'000U);
  account->release(Resource::received_bytes, charged);
}

TEST(AccountTest, WaiterIsWokenOnceWhenSomethingIsReleased) {
  const auto account = makeAccount();
  const auto owner = std::make_shared<int>();
  int woken = 0;
  EXPECT_TRUE(account->charge(Resource::calls, 5));
  account->whenReleased(Resource::calls, owner, [&] { ++woken; });
  EXPECT_EQ(woken, 0);
  account->release(Resource::calls, 1);
  EXPECT_EQ(woken, 1);
  account->release(Resource::calls, 4);
  EXPECT_EQ(woken, 1);
}

TEST(AccountTest, WaiterIsWokenAtOnceWhenSomethingIsFree) {
  const auto account = makeAccount();
  const auto owner = std::make_shared<int>();
  int woken = 0;
  account->whenReleased(Resource::calls, owner, [&] { ++woken; });
  EXPECT_EQ(woken, 1);
}

TEST(AccountTest, WaiterIsNotWokenForAnotherResource) {
  const auto account = makeAccount();
  const auto owner = std::make_shared<int>();
  int for_calls = 0;
  int for_services = 0;
  EXPECT_TRUE(account->charge(Resource::calls, 5));
  EXPECT_TRUE(account->charge(Resource::services, 6));
  account->whenReleased(Resource::calls, owner, [&] { ++for_calls; });
  account->whenReleased(Resource::services, owner, [&] { ++for_services; });
  account->release(Resource::services, 6);
  EXPECT_EQ(for_calls, 0);
  EXPECT_EQ(for_services, 1);
  account->release(Resource::calls, 5);
  EXPECT_EQ(for_calls, 1);
  EXPECT_EQ(for_services, 1);
}

TEST(AccountTest, WaiterWhoseOwnerIsGoneIsNotWoken) {
  const auto account = makeAccount();
  int woken = 0;
  EXPECT_TRUE(account->charge(Resource::calls, 5));
  account->whenReleased(Resource::calls, std::make_shared<int>(), [&] { ++woken; });
  account->release(Resource::calls, 5);
  EXPECT_EQ(woken, 0);
}

TEST(AccountTest, WaitersWhoseOwnersAreGoneAreNotKept) {
  const auto account = makeAccount();
  const auto resources = std::make_shared<int>();
  EXPECT_TRUE(account->charge(Resource::calls, 5));
  for (int i = 0; i < 10000; ++i) {
    account->whenReleased(Resource::calls, std::make_shared<int>(), [resources] {});
  }
  EXPECT_LE(resources.use_count(), 200);
  account->release(Resource::calls, 5);
  EXPECT_EQ(resources.use_count(), 1);
}

TEST(AccountTest, ManyWaitersAreAllWokenInTheOrderTheyCame) {
  const auto account = makeAccount();
  const auto owner = std::make_shared<int>();
  EXPECT_TRUE(account->charge(Resource::calls, 5));
  EXPECT_TRUE(account->charge(Resource::services, 6));
  std::vector<int> woken;
  std::vector<int> expected;
  for (int i = 0; i < 1000; ++i) {
    account->whenReleased(Resource::calls, owner, [&woken, i] { woken.push_back(i); });
    account->whenReleased(Resource::services, owner, [&woken, i] { woken.push_back(1000 + i); });
    expected.push_back(i);
  }
  account->release(Resource::calls, 5);
  EXPECT_EQ(woken, expected);
  woken.clear();
  for (int& i : expected) i += 1000;
  account->release(Resource::services, 6);
  EXPECT_EQ(woken, expected);
}

TEST(AccountTest, ResourcesAreNamedAsTextsSayThem) {
  std::vector<std::string_view> names;
  for (const auto resource : {Resource::connections, Resource::received_bytes, Resource::queued_bytes,
                              Resource::descriptors, Resource::calls, Resource::services}) {
    names.push_back(nameOf(resource));
  }
  EXPECT_THAT(names, testing::ElementsAre("connections", "bytes received", "bytes queued", "descriptors",
                                          "calls", "services"));
}

TEST(AccountTest, ReleaseBetweenLookingAndWaitingIsNotMissed) {
  for (int round = 0; round < 2000; ++round) {
    const auto account = makeAccount();
    const auto owner = std::make_shared<int>();
    std::atomic<int> woken = 0;
    ASSERT_TRUE(account->charge(Resource::calls, 5));
    std::thread releasing([&] { account->release(Resource::calls, 5); });
    account->whenReleased(Resource::calls, owner, [&] { ++woken; });
    releasing.join();
    ASSERT_EQ(woken, 1) << "in round " << round;
  }
}

TEST(ChargeTest, IsReleasedWhenItEnds) {
  const auto account = makeAccount();
  {
    Charge charge = Charge::of(account, Resource::calls, 3);
    EXPECT_TRUE(charge);
    const Charge moved = std::move(charge);
    EXPECT_EQ(moved.amount(), 3U);
    EXPECT_EQ(account->used(Resource::calls), 3U);
  }
  EXPECT_EQ(account->used(Resource::calls), 0U);
}

TEST(ChargeTest, IsEmptyWhenItWouldExceedTheLimit) {
  const auto account = makeAccount();
  EXPECT_FALSE(Charge::of(account, Resource::calls, 6));
  EXPECT_EQ(account->used(Resource::calls), 0U);
}

TEST(ChargeTest, AssignmentReleasesWhatItHeld) {
  const auto account = makeAccount();
  Charge charge = Charge::of(account, Resource::calls, 3);
  charge = Charge::of(account, Resource::calls, 2);
  EXPECT_EQ(account->used(Resource::calls), 2U);
  charge = Charge();
  EXPECT_EQ(account->used(Resource::calls), 0U);
}

TEST(ChargeTest, WhatWasMovedFromIsEmpty) {
  const auto account = makeAccount();
  Charge first = Charge::of(account, Resource::calls, 3);
  Charge second = std::move(first);
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): that is the subject
  EXPECT_EQ(first.amount(), 0U);
  first = std::move(second);
  EXPECT_FALSE(second);  // NOLINT(bugprone-use-after-move): that is the subject
  EXPECT_EQ(second.amount(), 0U);
  EXPECT_EQ(first.amount(), 3U);
  EXPECT_EQ(account->used(Resource::calls), 3U);
}

TEST(ChargeTest, AssignmentToItselfKeepsTheAmount) {
  const auto account = makeAccount();
  Charge charge = Charge::of(account, Resource::calls, 3);
  Charge& same = charge;
  charge = std::move(same);
  EXPECT_TRUE(charge);
  EXPECT_EQ(charge.amount(), 3U);
  EXPECT_EQ(account->used(Resource::calls), 3U);
}

TEST(ChargeTest, AssignmentTakesTheResourceOver) {
  const auto account = makeAccount();
  Charge charge = Charge::of(account, Resource::calls, 3);
  charge = Charge::of(account, Resource::services, 2);
  EXPECT_EQ(account->used(Resource::calls), 0U);
  charge.reset();
  EXPECT_EQ(account->used(Resource::services), 0U);
}

TEST(ChargeTest, PartsAreReleasedApart) {
  const auto account = makeAccount();
  Charge whole = Charge::of(account, Resource::received_bytes, 10);
  EXPECT_TRUE(whole.grow(50));
  EXPECT_FALSE(whole.grow(50));
  EXPECT_EQ(whole.growUpTo(50), 40U);
  Charge part = whole.split(30);
  whole.shrink(20);
  EXPECT_EQ(account->used(Resource::received_bytes), 80U);
  whole.reset();
  EXPECT_EQ(account->used(Resource::received_bytes), 30U);
  part.reset();
  EXPECT_EQ(account->used(Resource::received_bytes), 0U);
}

TEST(AccountsTest, ConnectionsOfAUserShareOneAccount) {
  Accounts accounts(limits, limits);
  const auto account = accounts.of(1000);
  EXPECT_EQ(accounts.of(1000), account);
  EXPECT_NE(accounts.of(1001), account);
  EXPECT_EQ(account->user(), 1000U);
}

TEST(AccountsTest, RootAndTheOwnUserHaveHigherLimits) {
  constexpr Limits higher{30, 1000, 2000, 40, 50, 60};
  Accounts accounts(limits, higher);
  EXPECT_EQ(accounts.of(0)->limit(Resource::calls), 50U);
  EXPECT_EQ(accounts.of(::geteuid())->limit(Resource::calls), 50U);
  EXPECT_EQ(accounts.of(::geteuid() + 1)->limit(Resource::calls), 5U);
}

TEST(AccountsTest, OwnUserHasHigherLimitsThoughNotRoot) {
  const pid_t child = ::fork();
  if (child == 0) {
    constexpr uid_t nobody = 65534;
    if (::geteuid() == 0 && ::seteuid(nobody) != 0) ::_exit(1);
    constexpr Limits higher{30, 1000, 2000, 40, 50, 60};
    Accounts accounts(limits, higher);
    ::_exit(accounts.of(::geteuid())->limit(Resource::calls) == 50 ? 0 : 2);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST(AccountsTest, AccountLivesAsLongAsAnythingIsCharged) {
  Accounts accounts(limits, limits);
  Charge charge = Charge::of(accounts.of(1000), Resource::calls, 2);
  EXPECT_EQ(accounts.of(1000)->used(Resource::calls), 2U);
  const std::weak_ptr<Account> account = accounts.of(1000);
  for (uid_t user = 2000; user < 3000; ++user) EXPECT_EQ(accounts.of(user)->user(), user);
  EXPECT_EQ(accounts.of(1000)->used(Resource::calls), 2U);
  charge.reset();
  EXPECT_TRUE(account.expired());
  EXPECT_EQ(accounts.of(1000)->used(Resource::calls), 0U);
}

TEST(AccountsTest, UsersWithNothingChargedAreForgotten) {
  Accounts accounts(limits, limits);
  const auto kept = accounts.of(1000);
  for (uid_t user = 2000; user < 12000; ++user) EXPECT_EQ(accounts.of(user)->user(), user);
  EXPECT_LE(accounts.size(), 32U);
  EXPECT_EQ(accounts.of(1000), kept);
}

TEST(AccountsTest, EachLimitIsAnEndAndHigherForThePrivileged) {
  for (std::size_t i = 0; i < resource_count; ++i) {
    const auto resource = static_cast<Resource>(i);
    EXPECT_GT(ordinaryLimits().at(i), 0U) << nameOf(resource);
    EXPECT_GT(privilegedLimits().at(i), ordinaryLimits().at(i)) << nameOf(resource);
    EXPECT_LT(privilegedLimits().at(i), 1U << 30) << nameOf(resource);
  }
}

}  // namespace
}  // namespace kelvane::wire
