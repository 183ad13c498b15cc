#include "support/notification_outbox.h"

#include <gtest/gtest.h>
#include <vector>

namespace kelvane::tests {
namespace {

class Outbox : public testing::Test {
 protected:
  /// One is under way, and as many wait as are allowed; their values count up from 0.
  void fill() {
    ASSERT_TRUE(outbox_.start({"first", 0}));
    for (unsigned i = 1; i <= NotificationOutbox::most_waiting; ++i)
      ASSERT_FALSE(outbox_.start({"first", i}));
  }
  /// The values of those that wait, each sent after the one before it has ended.
  std::vector<Value> rest() {
    std::vector<Value> values;
    while (auto next = outbox_.finish()) values.push_back(next->value);
    return values;
  }
  NotificationOutbox outbox_;
};

TEST_F(Outbox, SendsOneAtATimeInTheirOrder) {
  EXPECT_TRUE(outbox_.start({"first", 1}));
  EXPECT_FALSE(outbox_.start({"first", 2}));
  EXPECT_FALSE(outbox_.start({"second", 3}));
  EXPECT_FALSE(outbox_.start({"first", 4}));
  auto next = outbox_.finish();
  ASSERT_TRUE(next);
  EXPECT_EQ(next->name, "first");
  EXPECT_EQ(next->value, Value(2));
  EXPECT_FALSE(outbox_.start({"third", 5}));  // one is under way again
  EXPECT_EQ(rest(), (std::vector<Value>{3, 4, 5}));
  EXPECT_TRUE(outbox_.start({"first", 6}));
}

TEST_F(Outbox, KeepsOnlyTheLastOfANameOnceTooManyWait) {
  fill();
  EXPECT_FALSE(outbox_.start({"first", 100}));
  EXPECT_FALSE(outbox_.start({"first", 200}));
  std::vector<Value> expected;
  for (unsigned i = 1; i < NotificationOutbox::most_waiting; ++i) expected.emplace_back(i);
  expected.emplace_back(200);
  EXPECT_EQ(rest(), expected);
}

TEST_F(Outbox, LeavesOutNoOtherNameWhenTooManyWait) {
  fill();
  EXPECT_FALSE(outbox_.start({"second", 100}));
  EXPECT_FALSE(outbox_.start({"second", 200}));
  const auto values = rest();
  ASSERT_EQ(values.size(), NotificationOutbox::most_waiting + 1);
  EXPECT_EQ(values.back(), Value(200));
}

TEST_F(Outbox, DropsWhatIsNotWantedAnyMore) {
  EXPECT_TRUE(outbox_.start({"first", 1}));
  EXPECT_FALSE(outbox_.start({"first", 2}));
  EXPECT_FALSE(outbox_.start({"second", 3}));
  outbox_.drop("first");
  EXPECT_EQ(rest(), std::vector<Value>{3});
}

}  // namespace
}  // namespace kelvane::tests
