// What waits for one connection: the order of the tables whose changes are put off while it takes
// no more. A nexthop group comes before the routes that lead to it, and goes behind those that left
// it.
//
// Belongs to the context, under the API's lock. A table joins when it is made, and leaves when it
// goes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace ryx {

// The first go first.
enum class BacklogRank : uint8_t { groups, routes, groupDeletions };

class Backlog {
 public:
  class Table {
   public:
    virtual ~Table() = default;
    virtual BacklogRank rank() const = 0;
    virtual bool isEmpty() const = 0;
    // It may be its turn.
    virtual void turn() = 0;
  };

  void join(Table& table) { tables_.push_back(&table); }
  void leave(Table& table) { std::erase(tables_, &table); }

  // Nothing waits that goes before that.
  bool isTurnOf(BacklogRank rank) const {
    return std::none_of(tables_.begin(), tables_.end(), [rank](const Table* table) {
      return table->rank() < rank && !table->isEmpty();
    });
  }
  // Nothing of that rank waits any more.
  void emptied(BacklogRank rank) {
    for (Table* table : tables_)
      if (table->rank() > rank && !table->isEmpty()) table->turn();
  }

 private:
  std::vector<Table*> tables_;
};

}  // namespace ryx
