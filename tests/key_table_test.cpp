// Large tables: while one grows in parts, everything is found that is in it and nothing else, and
// iterators go on.
#include "lib/key_table.h"

#include <gtest/gtest.h>

#include <random>
#include <unordered_map>

#include "tests/support/random_runs.h"

namespace ryx {
namespace {

TEST(KeyTable, ATableThatGrowsInPartsIsWhatItIs) {
  test::randomRuns(3, [](std::mt19937& random) {
    KeyTable<uint32_t, uint32_t> table;
    std::unordered_map<uint32_t, uint32_t> model;
    const uint32_t keys = 150'000;
    auto iterator = table.iterator();
    for (uint32_t step = 0; step < 400'000; ++step) {
      const uint32_t key = random() % keys;
      // Mostly it grows; then, for a while, it shrinks.
      const bool grows = step < 300'000 ? random() % 4 != 0 : random() % 4 == 0;
      if (grows) {
        table[key] = step;
        model[key] = step;
      } else {
        ASSERT_EQ(model.erase(key) != 0, table.erase(key));
      }
      const uint32_t other = random() % keys;
      const auto at = model.find(other);
      const auto* found = table.find(other);
      ASSERT_EQ(at != model.end(), found != nullptr) << "step " << step;
      ASSERT_TRUE(!found || at->second == found->value);
      if (step % 100'000 == 0) iterator = table.iterator();
      iterator.next();
    }
    ASSERT_EQ(model.size(), table.size());
    for (auto it = table.iterator(); it; it.next()) {
      ASSERT_EQ(model.at(it.key()), it->value);
      model.erase(it.key());
    }
    EXPECT_TRUE(model.empty());
  });
}

}  // namespace
}  // namespace ryx
