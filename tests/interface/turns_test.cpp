#include "interface/turns.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace kelvane {
namespace {

class TurnsOfUsers : public testing::Test {
 protected:
  void add(uid_t user, const std::string& name) {
    turns_.add(user, [this, name] { ran_.push_back(name); });
  }
  std::vector<std::string> order(unsigned items) {
    for (unsigned i = 0; i < items; ++i) turns_.runNext();
    return ran_;
  }

  Turns turns_;
  std::vector<std::string> ran_;
};

TEST_F(TurnsOfUsers, RunOneUsersItemsInTheirOrder) {
  for (const char* name : {"a", "b", "c"}) add(1000, name);
  EXPECT_EQ(order(3), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(TurnsOfUsers, GiveAnotherUserTheNextTurnHoweverManyItemsWait) {
  for (const char* name : {"a1", "a2", "a3"}) add(1000, name);
  for (const char* name : {"b1", "b2"}) add(1001, name);
  add(7, "c1");
  EXPECT_EQ(order(6), (std::vector<std::string>{"c1", "a1", "b1", "a2", "b2", "a3"}));
}

TEST_F(TurnsOfUsers, GoOnWithTheNextUserWhenItemsAreAddedMeanwhile) {
  add(1000, "a1");
  add(1001, "b1");
  EXPECT_EQ(order(1), (std::vector<std::string>{"a1"}));
  add(1000, "a2");
  add(1001, "b2");
  EXPECT_EQ(order(3), (std::vector<std::string>{"a1", "b1", "a2", "b2"}));
}

}  // namespace
}  // namespace kelvane
