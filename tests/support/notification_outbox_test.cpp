#include "support/notification_outbox.h"

#include <gtest/gtest.h>

namespace kelvane::tests {
namespace {

class Outbox : public testing::Test {
 protected:
  void fill() {
    for (unsigned i = 0; i < NotificationOutbox::most_under_way; ++i)
      ASSERT_TRUE(outbox_.start({"first", 0})) << i;
  }
  NotificationOutbox outbox_;
};

TEST_F(Outbox, SendsSoManyAtATimeAndNoMore) {
  fill();
  EXPECT_FALSE(outbox_.start({"first", 1}));
}

TEST_F(Outbox, SendsTheNewestOfEachNameInThePlaceOfOneThatIsDone) {
  fill();
  EXPECT_FALSE(outbox_.start({"first", 1}));
  EXPECT_FALSE(outbox_.start({"second", 2}));
  EXPECT_FALSE(outbox_.start({"first", 3}));
  auto next = outbox_.finish();
  ASSERT_TRUE(next);
  EXPECT_EQ(next->name, "first");
  EXPECT_EQ(next->value, Value(3));
  EXPECT_FALSE(outbox_.start({"third", 4}));  // the place is taken
  EXPECT_EQ(outbox_.finish()->value, Value(2));
  EXPECT_EQ(outbox_.finish()->value, Value(4));
  EXPECT_FALSE(outbox_.finish());
  EXPECT_TRUE(outbox_.start({"first", 5}));
}

TEST_F(Outbox, DoesNotKeepWhatIsNotWantedAnyMore) {
  fill();
  EXPECT_FALSE(outbox_.start({"first", 1}));
  outbox_.drop("first");
  EXPECT_FALSE(outbox_.finish());
}

}  // namespace
}  // namespace kelvane::tests
