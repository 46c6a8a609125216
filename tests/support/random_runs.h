// Tests of random operations: a little in the suite, RYX_TEST_TIMES times as much where that is
// set, from seeds that begin at RYX_TEST_SEED. Each run names its seed when it fails: with that
// seed and no RYX_TEST_TIMES it is the first of its test.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

namespace ryx::test {

inline unsigned fromEnvironment(const char* name, unsigned otherwise) {
  const char* text = std::getenv(name);
  return text && *text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

// Runs until one of them fails or `enough` says so, asked before each; `run` gets the run's seed.
template <class Enough, class Run>
void seededRuns(Enough&& enough, Run&& run) {
  for (unsigned seed = fromEnvironment("RYX_TEST_SEED", 1); !enough(); ++seed) {
    SCOPED_TRACE("RYX_TEST_SEED=" + std::to_string(seed));
    run(seed);
    if (::testing::Test::HasFailure()) return;
  }
}

inline unsigned testTimes() {
  return fromEnvironment("RYX_TEST_TIMES", 1);
}

// So many runs, each with a generator of its own.
template <class Run>
void randomRuns(unsigned count, Run&& run) {
  count *= testTimes();
  seededRuns([&] { return count-- == 0; },
             [&](unsigned seed) {
               std::mt19937 random(seed);
               run(random);
             });
}

// What a long run did, for whoever asked for one.
inline void tellOperations(uint64_t operations) {
  if (testTimes() > 1)
    std::printf("%llu random operations\n", static_cast<unsigned long long>(operations));
}

}  // namespace ryx::test
