// Entry point of every unit-test program.
#include <gtest/gtest.h>

int main(int argc, char **argv) {
  // Death tests re-run the test in a fresh process, so tests may have threads
  // running when they reach a death statement.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
