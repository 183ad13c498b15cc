#include <gtest/gtest.h>

#include "tests/system/machine.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests)) kelvane::tests::enterPrivateMachine();
  return RUN_ALL_TESTS();
}
