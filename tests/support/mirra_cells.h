// Rows whose content can be checked: each has a sum of all that is in it and beside it.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <span>
#include <utility>
#include <vector>

#include "platform/mirra/table.h"

namespace ryx::test {

struct alignas(8) Part {
  uint64_t number = 0;
  uint64_t twice = 0;
  static constexpr auto members() {
    return platform::described(platform::member("number", &Part::number),
                               platform::member("twice", &Part::twice));
  }
};

struct alignas(8) Cell {
  static constexpr const char* kTypeName = "MirraTest::Cell";
  static constexpr uint32_t kMaxRows = 16u << 10;
  using Element = Part;
  static constexpr const char* kListName = "part";
  static constexpr uint64_t kMaxListBytes = 16u << 20;
  uint64_t key = 0;
  uint64_t value = 0;
  uint64_t parts = 0;
  uint64_t sum = 0;
  static constexpr auto members() {
    return platform::described(
        platform::member("key", &Cell::key), platform::member("value", &Cell::value),
        platform::member("parts", &Cell::parts), platform::member("sum", &Cell::sum));
  }
};

// What a value is, with as many parts as it says.
inline std::vector<Part> partsOf(uint64_t key, uint64_t value) {
  std::vector<Part> parts(value % 5);
  for (size_t i = 0; i < parts.size(); ++i)
    parts[i] = {key ^ (value * (i + 1)), 2 * (key ^ (value * (i + 1)))};
  return parts;
}
inline uint64_t sumOf(uint64_t key, uint64_t value, std::span<const Part> parts) {
  uint64_t sum = platform::hashMix(key, value, 1);
  for (const Part& p : parts) sum = platform::hashMix(sum, p.number + p.twice, 1);
  return sum;
}
inline bool isWhole(const Cell& c, std::span<const Part> parts) {
  return c.parts == parts.size() && c.sum == sumOf(c.key, c.value, parts);
}

inline bool put(platform::mirra::Table<Cell>& table, uint64_t key, uint64_t value) {
  const std::vector<Part> parts = partsOf(key, value);
  return table.write({key, value, parts.size(), sumOf(key, value, parts)}, parts);
}

using Cells = std::map<uint64_t, uint64_t>;  // values by key

inline Cells cellsOf(const platform::mirra::Table<Cell>& table) {
  Cells all;
  for (auto it = table.iterator(); it; it.next()) {
    EXPECT_TRUE(isWhole(it.row(), it.list()));
    EXPECT_TRUE(all.emplace(it.row().key, it.row().value).second) << "a key twice";
  }
  return all;
}

// What a reactor believes the table to be, from what it is told alone.
class CellMirror final : public platform::mirra::RowReactor<Cell> {
 public:
  explicit CellMirror(platform::mirra::Table<Cell>& table) : RowReactor("CellMirror", table) {}
  Cells cells;
  uint64_t told = 0, gone = 0;

 private:
  void onRow(const Cell& cell, std::span<const Part> parts) override {
    EXPECT_TRUE(isWhole(cell, parts));
    cells[cell.key] = cell.value;
    ++told;
  }
  void onRowGone(const uint64_t& key) override {
    EXPECT_EQ(1u, cells.erase(key)) << "of what it never heard of";
    ++gone;
  }
};

}  // namespace ryx::test
