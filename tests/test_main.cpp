// Entry point of every unit-test program.
#include <gtest/gtest.h>

#include "child_process.h"

int main(int argc, char **argv) {
  kztest::EnterChildModeIfAsked(argc, argv);
  // Death tests re-run the test in a fresh process, so tests may have threads
  // running when they reach a death statement.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  testing::InitGoogleTest(&argc, argv);
  if (kztest::InChild()) {
    // A child of RunChild reports nothing of the test it passes through.
    testing::TestEventListeners &listeners = testing::UnitTest::GetInstance()->listeners();
    delete listeners.Release(listeners.default_result_printer());
    (void)!RUN_ALL_TESTS();  // the child ends inside its test; reaching here is reported below
    return kztest::ChildNotReached();
  }
  return RUN_ALL_TESTS();
}
