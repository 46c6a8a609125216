// How long tests of random operations go on: a little in the suite, RYX_TEST_OPS times as long
// where that is set, from seeds that begin at RYX_TEST_SEED. Each run names its seed when it fails.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>

namespace ryx::test {

inline unsigned fromEnvironment(const char* name, unsigned otherwise) {
  const char* text = std::getenv(name);
  return text && *text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

template <class F>
void randomRuns(unsigned count, F&& run) {
  unsigned first = fromEnvironment("RYX_TEST_SEED", 1);
  count *= fromEnvironment("RYX_TEST_OPS", 1);
  for (unsigned seed = first; seed < first + count; ++seed) {
    SCOPED_TRACE("RYX_TEST_SEED=" + std::to_string(seed));
    std::mt19937 random(seed);
    run(random);
    if (::testing::Test::HasFailure()) return;
  }
}

}  // namespace ryx::test
