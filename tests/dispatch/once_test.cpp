#include "platform/dispatch/once.h"

#include <gtest/gtest.h>
#include <array>
#include <thread>
#include <vector>

namespace kelvane {
namespace {

TEST(Once, CallsTheFunctionTheFirstTimeOnly) {
  static dispatch_once_t once;
  int calls = 0;
  for (int i = 0; i < 3; ++i) dispatch_once(once, [&] { ++calls; });
  EXPECT_EQ(calls, 1);
}

TEST(Once, EveryCallerReturnsAfterTheCallHasFinished) {
  static std::array<dispatch_once_t, 50> rounds;
  for (dispatch_once_t& once : rounds) {
    int made = 0;  // plain on purpose: whoever returns from dispatch_once must see it whole
    std::vector<int> seen(8);
    std::vector<std::thread> threads;
    threads.reserve(seen.size());
    for (int& mine : seen) {
      threads.emplace_back([&] {
        dispatch_once(once, [&] {
          for (int i = 0; i < 1000; ++i) ++made;
        });
        mine = made;
      });
    }
    for (auto& thread : threads) thread.join();
    for (const int mine : seen) EXPECT_EQ(mine, 1000);
  }
}

}  // namespace
}  // namespace kelvane
