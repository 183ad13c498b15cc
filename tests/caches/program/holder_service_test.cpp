#include "caches/program/holder_service.h"

#include <gmock/gmock.h>
#include <atomic>

#include "tests/caches/program/fake_workers.h"

namespace kelvane::tests {
namespace {

using namespace caches;
using client::CachePurge;
using testing::HasSubstr;

Definition named(const std::string& name, bool shipped = true) {
  Definition definition;
  definition.name = name;
  definition.shipped = shipped;
  definition.rules.ages = {std::nullopt, std::chrono::hours(720), std::chrono::hours(168),
                           std::chrono::hours(1)};
  return definition;
}

HolderReport freeing(std::uint64_t bytes) {
  RootReport root;
  root.path = "/home/alice/.cache/x";
  root.volume = "/home";
  root.survey.complete = true;
  root.survey.at_urgency.fill({bytes, 3});
  root.purge.freed = bytes;
  root.purge.files = 3;
  root.purge.items = 3;
  root.purge.end = CachePurge::End::amountFreed;
  HolderReport report;
  report.roots.push_back(root);
  return report;
}

class HolderServiceTest : public testing::Test {
 protected:
  client::Request request(std::uint64_t amount) {
    client::Request request;
    request.urgency = 2;
    request.volume = "/home";
    request.amount = amount;
    request.answer_by = answer_by_;
    return request;
  }
  HolderService service(std::vector<Definition> definitions) {
    return {std::move(definitions), workers_, [this](const PurgeEntry& entry) { entries_.push_back(entry); }};
  }

  const std::chrono::steady_clock::time_point answer_by_ =
      std::chrono::steady_clock::now() + std::chrono::hours(1);
  const std::shared_ptr<std::atomic<bool>> cancelled_ = std::make_shared<std::atomic<bool>>(false);
  FakeWorkers workers_;
  std::vector<PurgeEntry> entries_;
};

TEST_F(HolderServiceTest, APurgeIsPassedOnWithItsDeadlineAndAnsweredWithWhatWent) {
  workers_.answer("npm", freeing(500));
  HolderService npm = service({named("npm")});
  EXPECT_EQ(npm.purge(request(800), client::Cancellation(cancelled_)), 500U);
  ASSERT_EQ(workers_.asked().size(), 1U);
  EXPECT_EQ(workers_.asked().front().holder, "npm");
  EXPECT_EQ(workers_.asked().front().volume, "/home");
  EXPECT_EQ(workers_.asked().front().urgency, 2);
  EXPECT_EQ(workers_.asked().front().amount, 800U);
  EXPECT_EQ(workers_.asked().front().deadline, answer_by_);
}

TEST_F(HolderServiceTest, AQuestionIsAnsweredWithTheFigureAtItsUrgency) {
  HolderReport report = freeing(0);
  report.roots.front().survey.at_urgency = {{{0, 0}, {70, 1}, {900, 2}, {1000, 3}}};
  workers_.answer("npm", report);
  HolderService npm = service({named("npm")});
  EXPECT_EQ(npm.purgeable(request(0), client::Cancellation(cancelled_))->bytes, 70U);
  EXPECT_EQ(workers_.asked().front().deadline, answer_by_);
  EXPECT_TRUE(entries_.empty()) << "a question leaves no entry";
}

TEST_F(HolderServiceTest, EachRootOfAPurgeLeavesAnEntryAndOneThatIsNotThereDoesNot) {
  HolderReport report = freeing(500);
  report.roots.push_back(report.roots.front());
  report.roots.back().path = "/root/.cache/x";
  report.roots.emplace_back().reason = "no such directory";
  workers_.answer("npm", report);
  HolderService npm = service({named("npm")});
  EXPECT_EQ(npm.purge(request(5000), client::Cancellation(cancelled_)), 1000U);
  ASSERT_EQ(entries_.size(), 2U);
  const std::string text = entries_.front().journal.text();
  for (const char* const field :
       {"KELVANE_HOLDER=npm\n", "KELVANE_ROOT=/home/alice/.cache/x\n", "KELVANE_VOLUME=/home\n",
        "KELVANE_USER=root\n", "KELVANE_URGENCY=2\n", "KELVANE_BYTES=500\n", "KELVANE_FILES=3\n",
        "KELVANE_ASKED=5000\n", "KELVANE_END=amount-freed\n", "MESSAGE_ID=6d8db663cc6d6e9174a18d9cad86b547\n",
        "older than 30 days"}) {
    EXPECT_THAT(text, HasSubstr(field));
  }
}

TEST_F(HolderServiceTest, TheLocalSocketTakesFromOneHolderAfterTheOther) {
  workers_.answer("a", freeing(500));
  workers_.answer("b", freeing(700));
  HolderService local = service({named("a", false), named("b", false)});
  EXPECT_EQ(local.purge(request(800), client::Cancellation(cancelled_)), 1200U);
  ASSERT_EQ(workers_.asked().size(), 2U);
  EXPECT_EQ(workers_.asked().back().amount, 300U);
}

TEST_F(HolderServiceTest, WhatIsEnoughIsNotExceededByTheNextHolder) {
  workers_.answer("a", freeing(800));
  HolderService local = service({named("a", false), named("b", false)});
  EXPECT_EQ(local.purge(request(800), client::Cancellation(cancelled_)), 800U);
  EXPECT_EQ(workers_.asked().size(), 1U);
}

TEST_F(HolderServiceTest, ADisabledHolderIsNotAsked) {
  Definition trash = named("trash");
  trash.enabled = false;
  HolderService service_of_trash = service({trash});
  EXPECT_EQ(service_of_trash.purge(request(800), client::Cancellation(cancelled_)), 0U);
  EXPECT_EQ(service_of_trash.purgeable(request(0), client::Cancellation(cancelled_))->bytes, 0U);
  EXPECT_TRUE(workers_.asked().empty());
}

TEST_F(HolderServiceTest, ACancelledPurgeBeginsNothing) {
  workers_.answer("npm", freeing(500));
  cancelled_->store(true);
  HolderService npm = service({named("npm")});
  EXPECT_EQ(npm.purge(request(800), client::Cancellation(cancelled_)), 0U);
  EXPECT_TRUE(workers_.asked().empty());
}

TEST(SocketNames, LeadToTheirDefinition) {
  DefinitionStore store;
  store.definitions = {named("apt"), named("npm")};
  EXPECT_EQ(holdersOf("npm", {"apt", "npm"}, store).definitions.front().name, "npm");
}

TEST(SocketNames, LocalIsWhatTheAdministratorAddedAndHasNoSocketOfItsOwn) {
  DefinitionStore store;
  store.definitions = {named("apt"), named("builds", false), named("models", false)};
  const SocketHolders local = holdersOf("local", {"apt", "local", "models"}, store);
  ASSERT_EQ(local.definitions.size(), 1U);
  EXPECT_EQ(local.definitions.front().name, "builds");
  EXPECT_EQ(local.reason, "");
}

TEST(SocketNames, WithoutADefinitionHaveAReason) {
  DefinitionStore store;
  store.masked = {"npm"};
  store.problems = {{"/etc/kelvane/caches.d/pip.toml", 3, "unknown key \"x\""}};
  EXPECT_EQ(holdersOf("npm", {"npm"}, store).reason, "masked");
  EXPECT_EQ(holdersOf("pip", {"pip"}, store).reason, "/etc/kelvane/caches.d/pip.toml:3: unknown key \"x\"");
  EXPECT_EQ(holdersOf("yarn", {"yarn"}, store).reason, "no such definition");
}

}  // namespace
}  // namespace kelvane::tests
