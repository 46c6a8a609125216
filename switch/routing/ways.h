// The ways out of the switch that the vias of a FEC have at present.
#pragma once

#include <utility>
#include <vector>

#include "switch/routing/next_hops.h"
#include "switch/routing/parts.h"

namespace ryx::routing {

// Ways out of the switch, as they are gathered.
class Ways {
 public:
  // Those of one via, by what it depends on.
  void addVia(const Fec& fec, size_t member);
  void add(NextHop nextHop, uint32_t weight) { all_.emplace_back(std::move(nextHop), weight); }

  // Each once, with its weight, as groups have them.
  std::vector<GroupMember> taken(NextHops& nextHops) {
    std::sort(all_.begin(), all_.end());
    std::vector<GroupMember> members;
    for (size_t at = 0; at < all_.size();) {
      uint32_t weight = 0;
      const size_t first = at;
      for (; at < all_.size() && all_[at].first == all_[first].first; ++at)
        weight += all_[at].second;
      members.push_back(nextHops.take(all_[first].first, weight));
    }
    return members;
  }

 private:
  std::vector<std::pair<NextHop, uint32_t>> all_;
};

}  // namespace ryx::routing
