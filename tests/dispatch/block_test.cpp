#include "platform/dispatch/block.h"

#include <gtest/gtest.h>
#include <array>
#include <memory>
#include <utility>

namespace kelvane {
namespace {

/// Counts the live ones and cannot be copied.
class Counted {
 public:
  explicit Counted(int& alive) : alive_(&alive) { ++*alive_; }
  Counted(Counted&& other) noexcept : alive_(other.alive_) { ++*alive_; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  Counted& operator=(Counted&&) = delete;
  ~Counted() { --*alive_; }

 private:
  int* alive_;
};

TEST(Block, HoldsASmallMoveOnlyCaptureAndDestroysItOnce) {
  int alive = 0;
  int calls = 0;
  {
    Block block([counted = Counted(alive), &calls] { ++calls; });
    EXPECT_EQ(alive, 1);
    block();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(alive, 1);
  }
  EXPECT_EQ(alive, 0);
}

TEST(Block, HoldsALargeMoveOnlyCaptureAndDestroysItOnce) {
  int alive = 0;
  int sum = 0;
  {
    std::array<int, 100> numbers{};
    numbers.fill(3);
    Block block([counted = Counted(alive), numbers, &sum] {
      for (const int number : numbers) sum += number;
    });
    EXPECT_EQ(alive, 1);
    block();
    EXPECT_EQ(sum, 300);
  }
  EXPECT_EQ(alive, 0);
}

TEST(Block, KeepsOneCaptureWhenItIsMovedFromPlaceToPlace) {
  int alive = 0;
  std::array<char, 200> ballast{};
  for (const bool large : {false, true}) {
    int calls = 0;
    Block first = large ? Block([counted = Counted(alive), ballast, &calls] { calls += 1 + ballast[7]; })
                        : Block([counted = Counted(alive), &calls] { ++calls; });
    Block second = std::move(first);
    Block third;
    third = std::move(second);
    EXPECT_EQ(alive, 1);
    EXPECT_FALSE(static_cast<bool>(first));   // NOLINT(bugprone-use-after-move): a moved block is empty
    EXPECT_FALSE(static_cast<bool>(second));  // NOLINT(bugprone-use-after-move)
    third();
    EXPECT_EQ(calls, 1);
    third = Block();
    EXPECT_EQ(alive, 0);
  }
}

TEST(Block, DestroysTheOldCaptureWhenItTakesANewOne) {
  int alive_before = 0;
  int alive_after = 0;
  Block block([counted = Counted(alive_before)] {});
  block = Block([counted = Counted(alive_after)] {});
  EXPECT_EQ(alive_before, 0);
  EXPECT_EQ(alive_after, 1);
}

TEST(Block, MayBeCalledManyTimesAndKeepsWhatTheCallsChanged) {
  int seen = 0;
  Block block([count = 0, &seen]() mutable { seen = ++count; });
  for (int i = 0; i < 5; ++i) block();
  EXPECT_EQ(seen, 5);
}

TEST(Block, HoldsACaptureThatNeedsMoreAlignmentThanItHasInside) {
  struct alignas(128) Aligned {
    int number = 42;
  };
  std::uintptr_t address = 1;
  int number = 0;
  Block block([aligned = Aligned(), &address, &number] {
    address = reinterpret_cast<std::uintptr_t>(&aligned);
    number = aligned.number;
  });
  block();
  EXPECT_EQ(address % 128, 0U);
  EXPECT_EQ(number, 42);
}

}  // namespace
}  // namespace kelvane
